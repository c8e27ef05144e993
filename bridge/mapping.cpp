#include "mapping.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>

#include "json.h"

namespace tarnbridge {

std::string stateTopic(const std::string& root, const std::string& device, const std::string& name) {
    return root + "/" + device + "/state/" + name;
}

std::string triggerTopic(const std::string& root, const std::string& device, const std::string& name) {
    return root + "/" + device + "/trigger/" + name;
}

std::string statusTopic(const std::string& root, const std::string& device) {
    return root + "/" + device + "/status";
}

std::string errorTopic(const std::string& root, const std::string& device) {
    return root + "/" + device + "/error";
}

std::string callFilter(const std::string& root, const std::string& device) {
    return root + "/" + device + "/call/#";
}

bool validTail(const std::string& name) {
    return !name.empty() && name.find_first_of(std::string("+#\0", 3)) == std::string::npos;
}

bool validLevel(const std::string& name) {
    return validTail(name) && name.find('/') == std::string::npos;
}

bool validRoot(const std::string& root) {
    if (root.empty() || root[0] == '$' || !validTail(root)) {
        return false;
    }
    return root.front() != '/' && root.back() != '/' && root.find("//") == std::string::npos;
}

bool callFunction(const std::string& root, const std::string& device, const std::string& topic,
                  std::string& function) {
    const std::string prefix = root + "/" + device + "/call/";
    if (topic.size() <= prefix.size() || topic.compare(0, prefix.size(), prefix) != 0) {
        return false;
    }
    function = topic.substr(prefix.size());
    return true;
}

std::string typeName(const ParameterValue& value) {
    switch (value.getType()) {
        case TYPE_STRING:
            return "string";
        case TYPE_INT:
            return "int";
        case TYPE_BOOL:
            return "bool";
        case TYPE_FLOAT:
            return "float";
        case TYPE_NONE:
            return "none";
        default:
            return "unknown";
    }
}

namespace {

std::string jsonScalar(const ParameterValue& value) {
    int number = 0;
    bool flag = false;
    float real = 0;
    switch (value.getType()) {
        case TYPE_STRING:
            return jsonQuote(value.getAsString());
        case TYPE_INT:
            value.getIntValue(number);
            return std::to_string(number);
        case TYPE_BOOL:
            value.getBooleanValue(flag);
            return flag ? "true" : "false";
        case TYPE_FLOAT:
            value.getFloatValue(real);
            return std::isfinite(real) ? floatText(real) : jsonQuote(floatText(real));
        default:
            return "null";
    }
}

}  // namespace

std::string jsonPayload(const ParameterValue& value) {
    return "{\"type\":\"" + typeName(value) + "\",\"value\":" + jsonScalar(value) + "}";
}

std::string rawPayload(const ParameterValue& value) {
    float real = 0;
    switch (value.getType()) {
        case TYPE_STRING:
            return value.getAsString();
        case TYPE_INT:
        case TYPE_BOOL:
            return jsonScalar(value);
        case TYPE_FLOAT:
            value.getFloatValue(real);
            return floatText(real);
        default:
            return "";
    }
}

namespace {

bool isInteger(const std::string& number) {
    return number.find_first_of(".eE") == std::string::npos;
}

bool intOf(const JsonValue& json, int& out, std::string& error) {
    if (json.kind != JsonValue::Kind::Number || !isInteger(json.text)) {
        error = "an int needs a whole JSON number";
        return false;
    }
    errno = 0;
    const long long value = std::strtoll(json.text.c_str(), nullptr, 10);
    if (errno == ERANGE || value < std::numeric_limits<std::int32_t>::min() ||
        value > std::numeric_limits<std::int32_t>::max()) {
        error = json.text + " is outside the 32-bit int range";
        return false;
    }
    out = static_cast<int>(value);
    return true;
}

bool floatOf(const JsonValue& json, float& out, std::string& error) {
    if (json.kind == JsonValue::Kind::String) {
        if (json.text == "nan" || json.text == "inf" || json.text == "-inf") {
            out = json.text == "nan"
                      ? std::numeric_limits<float>::quiet_NaN()
                      : (json.text == "inf" ? 1.0f : -1.0f) * std::numeric_limits<float>::infinity();
            return true;
        }
        error = "a float needs a JSON number, \"nan\", \"inf\" or \"-inf\"";
        return false;
    }
    if (json.kind != JsonValue::Kind::Number) {
        error = "a float needs a JSON number, \"nan\", \"inf\" or \"-inf\"";
        return false;
    }
    errno = 0;
    out = std::strtof(json.text.c_str(), nullptr);
    if (std::isinf(out)) {
        error = json.text + " is outside the float range";
        return false;
    }
    return true;
}

bool stringOf(const JsonValue& json, std::string& out, std::string& error) {
    if (json.kind != JsonValue::Kind::String) {
        error = "a string needs a JSON string";
        return false;
    }
    if (json.text.find('\0') != std::string::npos) {
        error = "a string cannot hold a NUL character";
        return false;
    }
    out = json.text;
    return true;
}

bool typedValue(const JsonValue& json, ParameterValue& out, std::string& error) {
    const JsonValue* type = json.find("type");
    const JsonValue* value = json.find("value");
    if (!type || !value || json.members.size() != 2 || type->kind != JsonValue::Kind::String) {
        error = "a typed parameter is {\"type\":\"string|int|bool|float\",\"value\":...}";
        return false;
    }
    if (type->text == "string") {
        std::string text;
        if (!stringOf(*value, text, error)) {
            return false;
        }
        out = ParameterValue(text);
    } else if (type->text == "int") {
        int number = 0;
        if (!intOf(*value, number, error)) {
            return false;
        }
        out = ParameterValue(number);
    } else if (type->text == "bool") {
        if (value->kind != JsonValue::Kind::Bool) {
            error = "a bool needs true or false";
            return false;
        }
        out = ParameterValue(value->boolean);
    } else if (type->text == "float") {
        float real = 0;
        if (!floatOf(*value, real, error)) {
            return false;
        }
        out = ParameterValue(real);
    } else {
        error = "unknown type \"" + type->text + "\" (string, int, bool or float)";
        return false;
    }
    return true;
}

bool plainValue(const JsonValue& json, ParameterValue& out, std::string& error) {
    switch (json.kind) {
        case JsonValue::Kind::Object:
            return typedValue(json, out, error);
        case JsonValue::Kind::String: {
            std::string text;
            if (!stringOf(json, text, error)) {
                return false;
            }
            out = ParameterValue(text);
            return true;
        }
        case JsonValue::Kind::Bool:
            out = ParameterValue(json.boolean);
            return true;
        case JsonValue::Kind::Number:
            if (isInteger(json.text)) {
                int number = 0;
                if (!intOf(json, number, error)) {
                    return false;
                }
                out = ParameterValue(number);
                return true;
            } else {
                float real = 0;
                if (!floatOf(json, real, error)) {
                    return false;
                }
                out = ParameterValue(real);
                return true;
            }
        default:
            error = "a parameter is a string, number, true, false or a typed object, not null or an array";
            return false;
    }
}

// Room that the value's encoder asks for, and the bytes it then writes: the float asks for one
// byte more room than it writes.
std::size_t roomNeeded(const ParameterValue& value) {
    switch (value.getType()) {
        case TYPE_INT:
            return 5;
        case TYPE_FLOAT:
            return 6;
        case TYPE_BOOL:
            return 2;
        case TYPE_STRING:
            return value.getAsString().size() + 2;
        default:
            return 1;
    }
}

std::size_t bytesWritten(const ParameterValue& value) {
    return value.getType() == TYPE_FLOAT ? 5 : roomNeeded(value);
}

// Follows the list encoder step by step: room is tested before each name and before each value,
// and a value that then did not fit would stop the process, so both are checked here first.
bool callFits(const std::string& function, const std::map<std::string, ParameterValue>& params,
              std::string& error) {
    const std::size_t head = function.size() + 1;
    std::size_t pos = 1;
    std::size_t needed = head + 1;
    for (const auto& entry : params) {
        pos += entry.first.size() + 1;
        needed = std::max(needed, head + pos + roomNeeded(entry.second));
        pos += bytesWritten(entry.second);
        needed = std::max(needed, head + pos);
    }
    if (needed > kBodyRoom) {
        error = "the call needs " + std::to_string(needed) + " bytes, a TARN message carries at most " +
                std::to_string(kBodyRoom);
        return false;
    }
    return true;
}

}  // namespace

bool parseCall(const std::string& function, const std::string& payload, ParameterList& out,
               std::string& error) {
    JsonValue json;
    if (!parseJson(payload, json, error)) {
        error = "not JSON: " + error;
        return false;
    }
    if (json.kind != JsonValue::Kind::Object) {
        error = "a call's payload is a JSON object of parameters";
        return false;
    }
    std::map<std::string, ParameterValue> params;
    for (const auto& member : json.members) {
        const std::string& name = member.first;
        if (name.empty() || name.find('\0') != std::string::npos) {
            error = "a parameter needs a name without NUL characters";
            return false;
        }
        if (params.count(name) != 0) {
            error = "parameter \"" + name + "\" is given twice";
            return false;
        }
        ParameterValue value;
        if (!plainValue(member.second, value, error)) {
            error = "parameter \"" + name + "\": " + error;
            return false;
        }
        params[name] = value;
    }
    if (!callFits(function, params, error)) {
        return false;
    }
    out = ParameterList();
    for (const auto& entry : params) {
        const ParameterValue& value = entry.second;
        int number = 0;
        bool flag = false;
        float real = 0;
        if (value.getType() == TYPE_STRING) {
            out.addString(entry.first, value.getAsString());
        } else if (value.getIntValue(number)) {
            out.addNumeric(entry.first, number);
        } else if (value.getBooleanValue(flag)) {
            out.addBoolean(entry.first, flag);
        } else if (value.getFloatValue(real)) {
            out.addFloat(entry.first, real);
        }
    }
    return true;
}

std::string errorPayload(const std::string& topic, const std::string& function, const std::string& error) {
    return "{\"topic\":" + jsonQuote(topic) + ",\"function\":" + jsonQuote(function) +
           ",\"error\":" + jsonQuote(error) + "}";
}

}  // namespace tarnbridge
