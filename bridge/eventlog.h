// The bridge's account of what it does, on standard output: one readable line per event, or with
// --json one JSON object per line whose first field is "event". Any thread may write; each line
// leaves whole with one flush, so a pipe reader sees it at once.
//
// Events and their fields: broker{state: connected|lost|retry|refused, broker, reason}
// device{device, state: online|offline|retry, address, reason} call{device, function, params}
// refused{device, topic, error} started{devices} stopped{}
#ifndef TARN_BRIDGE_EVENTLOG_H
#define TARN_BRIDGE_EVENTLOG_H

#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace tarnbridge {

class EventLog {
public:
    explicit EventLog(bool json, std::FILE* out = stdout) : m_json(json), m_out(out) {}

    // `fields` are written in order: in JSON as string members, in the readable form as
    // "event value value ...".
    using Fields = std::vector<std::pair<std::string, std::string>>;
    void write(const std::string& event, const Fields& fields);
    // As write(), with a field that is a number in JSON.
    void write(const std::string& event, const Fields& fields, const std::string& numberKey, long number);

private:
    bool m_json;
    std::FILE* m_out;
    std::mutex m_mutex;
};

}  // namespace tarnbridge

#endif  // TARN_BRIDGE_EVENTLOG_H
