// SPDX-License-Identifier: MIT
// The same sessions, in a system that works and over outputs in memory, told to the model as well: slower, and every
// pixel, printed line, reply and failed assertion counts.
#include <optional>

#include "../src/base/output.h"
#include "../src/fbserver/command.h"
#include "../tests/support/history/outputs.h"
#include "../tests/support/history/play.h"
#include "../tests/support/history/server_side.h"
#include "support/play.h"
#include "support/poison.h"

namespace {

std::optional<model::Model> m;
model::Reply expected_reply;
std::optional<model::Aborted> expected_abort;

// ---- the outputs ----

// What lies beside their memory is not to be touched, but for looking whether it was.
void hide_surroundings()
{
    for (const MemoryOutput &output : memory_outputs) {
        const uint8_t *end = output.memory + output.device.memory;
        poison_add(output.first, static_cast<size_t>(output.memory - output.first));
        poison_add(end, static_cast<size_t>(output.last - end));
    }
}

void bare_surroundings()
{
    for (const MemoryOutput &output : memory_outputs)
        poison_remove(output.first, static_cast<size_t>(output.last - output.first));
}

void check()
{
    bare_surroundings();
    if (!memory_outputs_unharmed())
        fuzz_finding("a byte beside an output's memory was written");
    hide_surroundings();
}

void print_config(const Config &c)
{
    fprintf(stderr, "server of %d x %d\n", c.requested_w, c.requested_h);
    for (const model::Device *d : {&c.primary, &c.second})
        fprintf(stderr, "device of %d x %d, depth %u, stride %u, memory %u\n", d->width, d->height, d->depth, d->stride,
                d->memory);
}

bool start(const Decoder &d)
{
    if (fuzz_prints())
        print_config(d.config);
    m = history_model(d.config);
    for (int which : {model::PRIMARY, model::SECOND})
        memory_output_set(which, m->outputs[which].device, m->outputs[which].frame.bytes.data());
    hide_surroundings();
    fs = fs_new(d.config.requested_w, d.config.requested_h);
    image_band_bytes = 600; // a few rows, since the screens are small
    return true;
}

void end(bool)
{
    bare_surroundings();
    memory_output_drop(model::PRIMARY);
    memory_output_drop(model::SECOND);
    memory_output_calls = {};
    m.reset();
}

void toggle(int device)
{
    memory_outputs[device].broken = !memory_outputs[device].broken;
}

// ---- the comparison ----

std::string joined(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

std::string compare_texts()
{
    out_flush();
    std::string wrong;
    if (!text_matches(m->out, fuzz_printed.out))
        wrong += different("standard output", m->out, fuzz_printed.out);
    if (sorted_notices(m->err) != sorted_notices(fuzz_printed.err))
        wrong += different("standard error", m->err, fuzz_printed.err);
    m->out.clear();
    m->err.clear();
    return wrong;
}

std::string compare_names()
{
    for (const auto &[name, object] : fuzz_system.objects) {
        if (object.has_name != (m->shared_memory.count(name) != 0))
            return "the name of shared memory " + name + (object.has_name ? " is still there\n" : " is gone\n");
    }
    return {};
}

std::string compare_calls()
{
    const std::string expected = joined(m->calls), found = joined(memory_output_calls);
    m->calls.clear();
    return expected == found ? "" : different("calls of the outputs", expected, found);
}

void expect(const Action &a, const std::string &object)
{
    memory_output_calls.clear();
    expected_abort.reset();
    try {
        expected_reply = history_tell(*m, a, object, a.makes ? &fuzz_system.objects.at(object).memory : nullptr);
    } catch (const model::Aborted &aborted) {
        expected_abort = aborted;
    }
}

void compare(const Action &a, const model::Reply &reply)
{
    if (expected_abort)
        fuzz_finding("%s: assertion `%s' did not fail", expected_abort->function.c_str(),
                     expected_abort->expression.c_str());
    if (reply != expected_reply)
        fuzz_finding("the reply differs\n%s", history_text({a}).c_str());
    const std::string wrong = compare_texts() + compare_calls() + compare_names() + history_compare_records(*m) +
                              history_compare_memory(*m, model::PRIMARY) + history_compare_memory(*m, model::SECOND);
    if (!wrong.empty())
        fuzz_finding("at\n%s%s", history_text({a}).c_str(), wrong.c_str());
}

void judge(const Action &a, const FailedAssertion &failed)
{
    if (!expected_abort)
        fuzz_finding("%s: assertion `%s' failed, and should not", failed.function.c_str(), failed.expression.c_str());
    if (failed.function != expected_abort->function || failed.expression != expected_abort->expression)
        fuzz_finding("%s: assertion `%s' failed instead of %s: `%s'", failed.function.c_str(),
                     failed.expression.c_str(), expected_abort->function.c_str(), expected_abort->expression.c_str());
    if (!may_abort(a, failed))
        fuzz_finding("%s: %s: assertion `%s' is in another place or for another reason", failed.file.c_str(),
                     failed.function.c_str(), failed.expression.c_str());
    const std::string wrong = compare_texts();
    if (!wrong.empty())
        fuzz_finding("before the assertion %s", wrong.c_str());
}

void compare_status()
{
    m->out = model_status(*m);
    const std::string wrong = compare_texts();
    if (!wrong.empty())
        fuzz_finding("status: %s", wrong.c_str());
}

void describe(int, const DeviceForm &) {}

constexpr Stage BESIDE_MODEL = {false, start, end, toggle, describe, expect, compare, judge, compare_status, check};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    session_play(data, size, BESIDE_MODEL);
    return 0;
}
