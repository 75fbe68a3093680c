// SPDX-License-Identifier: MIT
#include "soak.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace {

// The number behind "LABEL:".
long number_of(const std::string &text, const std::string &label)
{
    for (const std::string &line : lines_of(text)) {
        if (line.rfind(label + ":", 0) == 0)
            return strtol(line.c_str() + label.size() + 1, nullptr, 10);
    }
    return -1;
}

long median(const std::vector<Sample> &samples, long Sample::*value, size_t begin, size_t end)
{
    std::vector<long> values;
    for (size_t i = begin; i < end; i++)
        values.push_back(samples[i].*value);
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

struct Watched {
    const char *name;
    long Sample::*value;
};

constexpr Watched RESIDENT{"resident KiB", &Sample::resident_kb};
constexpr Watched ANONYMOUS{"anonymous KiB", &Sample::anonymous_kb};
constexpr Watched MAPPINGS{"mappings", &Sample::mappings};
constexpr Watched DESCRIPTORS{"descriptors", &Sample::descriptors};
constexpr Watched THREADS{"threads", &Sample::threads};
constexpr Watched RUNTIME_NAMES{"names in the runtime folder", &Sample::runtime_names};
constexpr Watched MEMORY_NAMES{"names in /dev/shm", &Sample::memory_names};

std::string compare(const Watched &watched, long before, long after, long bound)
{
    if (after <= before + bound)
        return "";
    std::ostringstream text;
    text << watched.name << ": " << before << " before, " << after << " after, more than " << bound << " in addition\n";
    return text.str();
}

} // namespace

void sample_measure(Sample *sample, pid_t pid)
{
    const std::string process = "/proc/" + std::to_string(pid) + "/";
    const std::string memory = file_text(process + "smaps_rollup");
    sample->resident_kb = number_of(memory, "Rss");
    sample->anonymous_kb = number_of(memory, "Anonymous");
    sample->mappings = static_cast<long>(process_mappings(pid));
    sample->descriptors = static_cast<long>(process_descriptors(pid));
    sample->threads = number_of(file_text(process + "status"), "Threads");
}

std::string sample_heading()
{
    return "seconds  clients  requests    frames  resident anonymous mappings descriptors threads runtime /dev/shm";
}

std::string sample_text(const Sample &sample)
{
    char line[200];
    snprintf(line, sizeof line, "%7.1f %8llu %9llu %9llu %9ld %9ld %8ld %11ld %7ld %7ld %8ld", sample.seconds,
             static_cast<unsigned long long>(sample.served), static_cast<unsigned long long>(sample.requests),
             static_cast<unsigned long long>(sample.frames), sample.resident_kb, sample.anonymous_kb, sample.mappings,
             sample.descriptors, sample.threads, sample.runtime_names, sample.memory_names);
    return line;
}

std::string verdict_growth(const std::vector<Sample> &samples, const Bounds &bounds)
{
    const size_t n = samples.size();
    if (n < MIN_SAMPLES)
        return "";
    const std::pair<Watched, long> watched[] = {{RESIDENT, bounds.resident_kb},
                                                {ANONYMOUS, bounds.anonymous_kb},
                                                {MAPPINGS, bounds.mappings},
                                                {DESCRIPTORS, bounds.descriptors},
                                                {THREADS, 0},
                                                {RUNTIME_NAMES, 0},
                                                {MEMORY_NAMES, bounds.descriptors}};
    std::string grown;
    for (const auto &[what, bound] : watched)
        grown +=
            compare(what, median(samples, what.value, n / 4, n / 2), median(samples, what.value, n - n / 4, n), bound);
    return grown;
}

std::string verdict_left(const Sample &before, const Sample &after)
{
    return compare(DESCRIPTORS, before.descriptors, after.descriptors, 0) +
           compare(MAPPINGS, before.mappings, after.mappings, MAPPINGS_LEFT) +
           compare(THREADS, before.threads, after.threads, 0) +
           compare(RUNTIME_NAMES, before.runtime_names, after.runtime_names, 0) +
           compare(MEMORY_NAMES, before.memory_names, after.memory_names, 0);
}
