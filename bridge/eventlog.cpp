#include "eventlog.h"

#include "json.h"

namespace tarnbridge {

void EventLog::write(const std::string& event, const Fields& fields) {
    write(event, fields, std::string(), 0);
}

void EventLog::write(const std::string& event, const Fields& fields, const std::string& numberKey,
                     long number) {
    std::string line;
    if (m_json) {
        line = "{\"event\":" + jsonQuote(event);
        for (const auto& field : fields) {
            line += "," + jsonQuote(field.first) + ":" + jsonQuote(field.second);
        }
        if (!numberKey.empty()) {
            line += "," + jsonQuote(numberKey) + ":" + std::to_string(number);
        }
        line += "}";
    } else {
        line = event;
        for (const auto& field : fields) {
            line += " " + field.second;
        }
        if (!numberKey.empty()) {
            line += " " + numberKey + "=" + std::to_string(number);
        }
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    std::fputs(line.c_str(), m_out);
    std::fputc('\n', m_out);
    std::fflush(m_out);
}

}  // namespace tarnbridge
