#include "node/report/process_metrics.h"

#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>

namespace qv::node {

namespace {

using prometheus::MetricFamily;
using prometheus::MetricType;

// Fields of /proc/self/stat, counted from the field after the program's name.
constexpr std::size_t THREADS = 17;
constexpr std::size_t START_TIME = 19;
constexpr std::size_t VIRTUAL_BYTES = 20;
constexpr std::size_t RESIDENT_PAGES = 21;

void add(std::vector<MetricFamily>& families, const std::string& name, const std::string& help,
         double value, MetricType type = MetricType::Gauge) {
    prometheus::ClientMetric metric;
    (type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
    families.push_back({"process_" + name, help, type, {std::move(metric)}});
}

double seconds_in(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

std::string text_of(const char* path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Returns the numbers after the program's name, which may contain blanks and brackets.
std::vector<double> stat_fields() {
    const std::string text = text_of("/proc/self/stat");
    const std::size_t name_end = text.rfind(')');
    // The first field is the state, a letter.
    if (name_end == std::string::npos || name_end + 3 > text.size()) {
        return {};
    }
    std::istringstream numbers(text.substr(name_end + 3));
    std::vector<double> fields = {0};
    fields.insert(fields.end(), std::istream_iterator<double>(numbers), {});
    return fields;
}

// Returns when the system was started, in seconds since 1970. 0 if it does not say.
double boot_time() {
    std::ifstream file("/proc/stat");
    for (std::string word; file >> word;) {
        if (word == "btime") {
            double seconds = 0;
            file >> seconds;
            return seconds;
        }
    }
    return 0;
}

void add_cpu_time(std::vector<MetricFamily>& families) {
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) == 0) {
        add(families, "cpu_seconds_total", "CPU time in user and system mode, in seconds",
            seconds_in(usage.ru_utime) + seconds_in(usage.ru_stime), MetricType::Counter);
    }
}

void add_stat_fields(std::vector<MetricFamily>& families) {
    const std::vector<double> fields = stat_fields();
    if (fields.size() <= RESIDENT_PAGES) {
        return;
    }
    add(families, "threads", "Threads", fields[THREADS]);
    add(families, "virtual_memory_bytes", "Virtual memory, in bytes", fields[VIRTUAL_BYTES]);
    add(families, "resident_memory_bytes", "Resident memory, in bytes",
        fields[RESIDENT_PAGES] * static_cast<double>(sysconf(_SC_PAGESIZE)));
    const double booted = boot_time();
    if (booted > 0) {
        add(families, "start_time_seconds", "Start of the process, in seconds since 1970",
            booted + fields[START_TIME] / static_cast<double>(sysconf(_SC_CLK_TCK)));
    }
}

void add_open_files(std::vector<MetricFamily>& families) {
    std::error_code error;
    std::filesystem::directory_iterator entries("/proc/self/fd", error);
    if (!error) {
        // Does not count the descriptor of the folder that is being read.
        add(families, "open_fds", "Open file descriptors",
            static_cast<double>(std::distance(begin(entries), end(entries)) - 1));
    }
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        add(families, "max_fds", "Most file descriptors that may be open",
            static_cast<double>(limit.rlim_cur));
    }
}

}  // namespace

std::vector<MetricFamily> ProcessMetrics::Collect() const {
    std::vector<MetricFamily> families;
    add_cpu_time(families);
    add_stat_fields(families);
    add_open_files(families);
    return families;
}

}  // namespace qv::node
