#include "common.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include <parameterlist.h>
#include <tarnpacket.h>

namespace bench {

double processCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double procCpuSeconds() {
    // utime and stime are the 14th and 15th fields; the command name before them is in
    // parentheses and may hold spaces, so counting starts after the last ')', at the 3rd field.
    std::ifstream in("/proc/self/stat");
    std::string text;
    std::getline(in, text);
    const std::size_t close = text.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    std::istringstream fields(text.substr(close + 1));
    std::string field;
    unsigned long long ticks = 0;
    for (int index = 3; index <= 15 && fields >> field; ++index) {
        if (index >= 14) {
            ticks += std::strtoull(field.c_str(), nullptr, 10);
        }
    }
    return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

namespace {

// The number after `key` in /proc/self/status ("VmRSS:" is in kB).
long statusField(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    const std::string prefix(key);
    while (std::getline(in, line)) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            return std::strtol(line.c_str() + prefix.size(), nullptr, 10);
        }
    }
    return 0;
}

}  // namespace

std::uint64_t residentBytes() {
    return static_cast<std::uint64_t>(statusField("VmRSS:")) * 1024u;
}

int threadCount() {
    return static_cast<int>(statusField("Threads:"));
}

std::uint64_t backlogDrops() {
    std::ifstream in("/proc/net/softnet_stat");
    std::uint64_t total = 0;
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string processed;
        std::string dropped;
        if (fields >> processed >> dropped) {
            total += std::strtoull(dropped.c_str(), nullptr, 16);
        }
    }
    return total;
}

namespace {

// One column of the "Udp:" lines of /proc/net/snmp (the column names, then the values); 0 when
// missing.
std::uint64_t udpCounter(const char* name) {
    std::ifstream in("/proc/net/snmp");
    std::string line;
    std::vector<std::string> names;
    while (std::getline(in, line)) {
        if (line.compare(0, 4, "Udp:") != 0) {
            continue;
        }
        std::istringstream fields(line.substr(4));
        std::vector<std::string> row;
        for (std::string field; fields >> field;) {
            row.push_back(field);
        }
        if (names.empty()) {
            names = row;
            continue;
        }
        for (std::size_t i = 0; i < names.size() && i < row.size(); ++i) {
            if (names[i] == name) {
                return std::strtoull(row[i].c_str(), nullptr, 10);
            }
        }
        return 0;
    }
    return 0;
}

}  // namespace

// PR_FUTEX_HASH and its two requests, for headers older than the kernels that have them.
namespace futexhash {
const int kOption = 78;
const unsigned long kSetSlots = 1;
const unsigned long kGetSlots = 2;
}  // namespace futexhash

bool useGlobalFutexHash() {
    return ::prctl(futexhash::kOption, futexhash::kSetSlots, 0UL, 0UL, 0UL) == 0;
}

std::string futexHashText() {
    const int slots = ::prctl(futexhash::kOption, futexhash::kGetSlots, 0UL, 0UL, 0UL);
    if (slots < 0) {
        return "not told by the system";
    }
    return slots == 0 ? "the system's" : std::to_string(slots) + " slots of its own";
}

std::uint64_t udpReceiveBufferErrors() {
    return udpCounter("RcvbufErrors");
}

std::uint64_t udpOutDatagrams() {
    return udpCounter("OutDatagrams");
}

void raiseSoftLimits() {
    for (int resource : {RLIMIT_NOFILE, RLIMIT_NPROC}) {
        rlimit limit{};
        if (getrlimit(resource, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
            limit.rlim_cur = limit.rlim_max;
            setrlimit(resource, &limit);
        }
    }
}

std::string loadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

MachineInfo machineInfo() {
    MachineInfo info;
    info.cores = std::thread::hardware_concurrency();
    std::ifstream cpu("/proc/cpuinfo");
    std::string line;
    while (std::getline(cpu, line)) {
        if (line.compare(0, 10, "model name") == 0) {
            const auto colon = line.find(':');
            if (colon != std::string::npos) {
                info.cpuModel = line.substr(colon + 2);
            }
            break;
        }
    }
    utsname names{};
    if (uname(&names) == 0) {
        info.kernel = std::string(names.sysname) + " " + names.release;
    }
    info.loadAtStart = loadAverage();
    return info;
}

double percentileUs(const std::vector<std::uint32_t>& sorted, double q) {
    if (sorted.empty()) {
        return 0;
    }
    const double rank = std::ceil(q * static_cast<double>(sorted.size()));
    std::size_t index = rank < 1 ? 0 : static_cast<std::size_t>(rank) - 1;
    index = std::min(index, sorted.size() - 1);
    return sorted[index] / 1000.0;
}

std::vector<std::uint8_t> triggerBytes(const std::string& name, std::uint32_t payload) {
    TARNPacket packet(CMD_TRIGGER);
    packet.appendString(name);
    packet.appendParamValue(ParameterValue(std::string(payload, 'x')));
    return std::vector<std::uint8_t>(packet.m_buffer, packet.m_buffer + packet.m_length);
}

std::uint32_t triggerLength(const std::string& name, std::uint32_t payload) {
    return static_cast<std::uint32_t>(triggerBytes(name, payload).size());
}

std::uint32_t callLength(std::uint32_t payload) {
    ParameterList list;
    list.addString("s", std::string(payload, 'x'));
    TARNPacket packet(CMD_CALL_FUNCTION);
    packet.appendString("rt");
    packet.appendParamList(list);
    return packet.m_length;
}

std::string sequenceText(std::uint64_t seq, std::uint32_t payload) {
    char digits[32];
    std::snprintf(digits, sizeof(digits), "%020llu", static_cast<unsigned long long>(seq));
    std::string text(digits);
    if (text.size() > payload) {
        return text.substr(text.size() - payload);
    }
    return std::string(payload - text.size(), '0') + text;
}

std::uint64_t parseSequence(const std::string& text) {
    return std::strtoull(text.c_str(), nullptr, 10);
}

double median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const std::size_t mid = values.size() / 2;
    return values.size() % 2 == 1 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

}  // namespace bench
