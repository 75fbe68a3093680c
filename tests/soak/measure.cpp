// SPDX-License-Identifier: MIT
#include "soak.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
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
    long Bounds::*bound; // of growth
};

constexpr Watched WATCHED[] = {
    {"resident KiB", &Sample::resident_kb, &Bounds::resident_kb},
    {"anonymous KiB", &Sample::anonymous_kb, &Bounds::anonymous_kb},
    {"mappings", &Sample::mappings, &Bounds::mappings},
    {"descriptors", &Sample::descriptors, &Bounds::descriptors},
    {"threads", &Sample::threads, &Bounds::threads},
    {"names in the runtime folder", &Sample::runtime_names, &Bounds::runtime_names},
    {"names in /dev/shm", &Sample::memory_names, &Bounds::memory_names},
};

// What may be there at rest in addition, of each of them; -1: that much memory at one moment says little.
constexpr long LEFT[] = {-1, -1, MAPPINGS_LEFT, 0, 0, 0, 0};

std::string change(const Watched &watched, long before, long after, long bound)
{
    std::ostringstream text;
    text << watched.name << ": " << before << " before, " << after << " after; at most " << bound << " may be added\n";
    return text.str();
}

// Of the second and of the last quarter.
std::pair<long, long> medians(const std::vector<Sample> &samples, const Watched &watched)
{
    const size_t n = samples.size();
    return {median(samples, watched.value, n / 4, n / 2), median(samples, watched.value, n - n / 4, n)};
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

std::string medians_text(const std::vector<Sample> &samples, const Bounds &bounds)
{
    std::string text;
    for (const Watched &watched : WATCHED) {
        const auto [before, after] = medians(samples, watched);
        text += change(watched, before, after, bounds.*watched.bound);
    }
    return text;
}

std::string verdict_growth(const std::vector<Sample> &samples, const Bounds &bounds)
{
    std::string grown;
    for (const Watched &watched : WATCHED) {
        const auto [before, after] = medians(samples, watched);
        if (after > before + bounds.*watched.bound)
            grown += change(watched, before, after, bounds.*watched.bound);
    }
    return grown;
}

std::string verdict_left(const Sample &before, const Sample &after)
{
    std::string left;
    for (size_t i = 0; i < std::size(WATCHED); i++) {
        const long was = before.*WATCHED[i].value, is = after.*WATCHED[i].value;
        if (LEFT[i] >= 0 && is > was + LEFT[i])
            left += change(WATCHED[i], was, is, LEFT[i]);
    }
    return left;
}
