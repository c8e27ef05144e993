#include "values.h"

#include <pybind11/stl.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <map>
#include <sstream>

namespace tarnpy {

namespace {

std::string typeOf(py::handle object) {
    return py::str(py::type::handle_of(object).attr("__name__")).cast<std::string>();
}

[[noreturn]] void throwValueError(const std::string& text) {
    throw py::value_error(text);
}

[[noreturn]] void throwTypeError(const std::string& text) {
    throw py::type_error(text);
}

std::int32_t toInt32(py::handle object, const std::string& what) {
    py::object index = py::reinterpret_steal<py::object>(PyNumber_Index(object.ptr()));
    if (!index) {
        throw py::error_already_set();
    }
    int overflow = 0;
    const long long value = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
    if (value == -1 && PyErr_Occurred()) {
        throw py::error_already_set();
    }
    if (overflow != 0 || value < INT32_MIN || value > INT32_MAX) {
        throwValueError(what + " " + py::repr(index).cast<std::string>() +
                        " is out of the 32-bit signed integer range -2147483648 to 2147483647 "
                        "(send it as tarn.Float() or as text)");
    }
    return static_cast<std::int32_t>(value);
}

// The 32-bit float nearest to `value`. Finite values beyond the float's range are refused rather than
// turned into infinities; those that round to the largest float are that float.
float toFloat32(double value, const std::string& what) {
    if (std::isfinite(value) && std::fabs(value) > static_cast<double>(FLT_MAX)) {
        // Half a unit in the last place above FLT_MAX still rounds down to it.
        const double limit = static_cast<double>(FLT_MAX) + std::ldexp(1.0, 103);
        if (std::fabs(value) >= limit) {
            std::ostringstream text;
            text.precision(17);
            text << what << " " << value << " is out of the 32-bit float range (largest "
                 << static_cast<double>(FLT_MAX) << ")";
            throwValueError(text.str());
        }
        return std::copysign(FLT_MAX, static_cast<float>(std::copysign(1.0, value)));
    }
    return static_cast<float>(value);
}

double toDouble(py::handle object, const std::string& what) {
    const double value = PyFloat_AsDouble(object.ptr());
    if (value == -1.0 && PyErr_Occurred()) {
        PyErr_Clear();
        throwTypeError(what + " must be a real number, not " + typeOf(object));
    }
    return value;
}

bool isText(py::handle object) {
    return PyUnicode_Check(object.ptr()) || PyBytes_Check(object.ptr());
}

}  // namespace

std::string toText(py::handle object, const std::string& what) {
    if (PyBytes_Check(object.ptr())) {
        return std::string(PyBytes_AS_STRING(object.ptr()),
                           static_cast<std::size_t>(PyBytes_GET_SIZE(object.ptr())));
    }
    if (PyUnicode_Check(object.ptr())) {
        py::object encoded = py::reinterpret_steal<py::object>(
            PyUnicode_AsEncodedString(object.ptr(), "utf-8", "surrogateescape"));
        if (!encoded) {
            throw py::error_already_set();
        }
        return std::string(PyBytes_AS_STRING(encoded.ptr()),
                           static_cast<std::size_t>(PyBytes_GET_SIZE(encoded.ptr())));
    }
    throwTypeError(what + " must be str or bytes, not " + typeOf(object));
}

py::str textToPython(const std::string& text) {
    PyObject* decoded =
        PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogateescape");
    if (decoded == nullptr) {
        throw py::error_already_set();
    }
    return py::reinterpret_steal<py::str>(decoded);
}

ParameterValue toValue(py::handle object, const std::string& what) {
    if (py::isinstance<ParameterValue>(object)) {
        return object.cast<ParameterValue>();
    }
    if (object.is_none()) {
        return ParameterValue();
    }
    // bool before int: True is an int to Python, never to TARN.
    if (PyBool_Check(object.ptr())) {
        return ParameterValue(object.ptr() == Py_True);
    }
    if (PyFloat_Check(object.ptr())) {
        return ParameterValue(toFloat32(PyFloat_AS_DOUBLE(object.ptr()), what));
    }
    if (isText(object)) {
        return ParameterValue(toText(object, what));
    }
    if (PyLong_Check(object.ptr()) || PyIndex_Check(object.ptr())) {
        return ParameterValue(static_cast<int>(toInt32(object, what)));
    }
    throwTypeError(what + " has type " + typeOf(object) +
                   ", which TARN cannot carry: use str, int, bool, float or None, or force a type with "
                   "tarn.Int(), tarn.Float(), tarn.Bool() or tarn.Str()");
}

py::object fromValue(const ParameterValue& value) {
    switch (value.getType()) {
        case TYPE_INT: {
            int out = 0;
            value.getIntValue(out);
            return py::int_(out);
        }
        case TYPE_BOOL: {
            bool out = false;
            value.getBooleanValue(out);
            return py::bool_(out);
        }
        case TYPE_FLOAT: {
            float out = 0.0f;
            value.getFloatValue(out);
            return py::float_(static_cast<double>(out));
        }
        case TYPE_STRING:
            return textToPython(value.getAsString());
        case TYPE_NONE:
            return py::none();
        default:
            return py::cast(value);
    }
}

const char* typeName(const ParameterValue& value) {
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

ParameterValue forceInt(py::handle object) {
    if (PyBool_Check(object.ptr())) {
        throwTypeError("tarn.Int() takes an integer, not a bool");
    }
    if (PyFloat_Check(object.ptr())) {
        const double value = PyFloat_AS_DOUBLE(object.ptr());
        if (!std::isfinite(value) || value != std::floor(value)) {
            throwValueError("tarn.Int() takes a whole number, not " + py::repr(object).cast<std::string>());
        }
        return ParameterValue(
            static_cast<int>(toInt32(py::int_(py::reinterpret_borrow<py::object>(object)), "value")));
    }
    if (PyLong_Check(object.ptr()) || PyIndex_Check(object.ptr())) {
        return ParameterValue(static_cast<int>(toInt32(object, "value")));
    }
    throwTypeError("tarn.Int() takes an integer, not " + typeOf(object));
}

ParameterValue forceFloat(py::handle object) {
    if (PyBool_Check(object.ptr()) || isText(object) || object.is_none()) {
        throwTypeError("tarn.Float() takes a real number, not " + typeOf(object));
    }
    return ParameterValue(toFloat32(toDouble(object, "value"), "value"));
}

ParameterValue forceBool(py::handle object) {
    if (PyBool_Check(object.ptr())) {
        return ParameterValue(object.ptr() == Py_True);
    }
    if (PyLong_Check(object.ptr())) {
        const long long value = PyLong_AsLongLong(object.ptr());
        if (value == 0 || value == 1) {
            return ParameterValue(value == 1);
        }
        PyErr_Clear();
        throwValueError("tarn.Bool() takes a bool, 0 or 1, not " + py::repr(object).cast<std::string>());
    }
    throwTypeError("tarn.Bool() takes a bool, 0 or 1, not " + typeOf(object));
}

ParameterValue forceString(py::handle object) {
    if (object.is_none()) {
        throwTypeError("tarn.Str() takes a value to send as text, not None");
    }
    if (isText(object)) {
        return ParameterValue(toText(object, "value"));
    }
    return ParameterValue(toText(py::str(object), "value"));
}

// ---- lists -------------------------------------------------------------------------------------

NamedValues listEntries(const ParameterList& list) {
    // A buffer that surely holds the encoding: each entry takes its name, a NUL and a value of at
    // most its text and a few bytes. Too small a buffer would end the process in the encoder.
    std::size_t bound = 16;
    std::string name;
    std::string text;
    for (unsigned int i = 0; list.getParam(i, name, text); ++i) {
        bound += name.size() + text.size() + 16;
    }
    std::vector<char> buffer(bound, '\0');
    const int length = list.getBinary(buffer.data(), static_cast<int>(buffer.size()));
    NamedValues entries;
    // Walked by the encoded length rather than by the count byte, which wraps at 256 entries.
    int pos = 1;
    while (pos < length) {
        int end = pos;
        while (end < length && buffer[static_cast<std::size_t>(end)] != '\0') {
            ++end;
        }
        if (end >= length) {
            break;
        }
        std::pair<std::string, ParameterValue> entry;
        entry.first.assign(&buffer[static_cast<std::size_t>(pos)], static_cast<std::size_t>(end - pos));
        pos = end + 1;
        const int used = entry.second.createFromBinary(&buffer[static_cast<std::size_t>(pos)], length - pos,
                                                       static_cast<int>(buffer.size()) - pos);
        if (used <= 0) {
            break;
        }
        pos += used;
        entries.push_back(entry);
    }
    return entries;
}

// The four adders cover text, integer, boolean and float. A list holding no value, or a foreign
// tag, can only come from an encoding, so such lists are built by decoding one.
void fillList(const NamedValues& values, ParameterList& list) {
    bool plain = true;
    for (const auto& entry : values) {
        const int type = entry.second.getType();
        plain = plain && (type == TYPE_STRING || type == TYPE_INT || type == TYPE_BOOL || type == TYPE_FLOAT);
    }
    if (plain) {
        for (const auto& entry : values) {
            const ParameterValue& v = entry.second;
            int i = 0;
            bool b = false;
            float f = 0.0f;
            if (v.getIntValue(i)) {
                list.addNumeric(entry.first, i);
            } else if (v.getBooleanValue(b)) {
                list.addBoolean(entry.first, b);
            } else if (v.getFloatValue(f)) {
                list.addFloat(entry.first, f);
            } else {
                list.addString(entry.first, v.getAsString());
            }
        }
        return;
    }
    std::map<std::string, ParameterValue> sorted;
    for (const auto& entry : values) {
        if (entry.first.find('\0') != std::string::npos) {
            throwValueError("parameter names with a NUL byte cannot be combined with None values");
        }
        sorted[entry.first] = entry.second;
    }
    if (sorted.size() > 255) {
        throwValueError("a list holding None values can have at most 255 entries");
    }
    std::vector<char> buffer(1, static_cast<char>(sorted.size()));
    for (const auto& entry : sorted) {
        buffer.insert(buffer.end(), entry.first.begin(), entry.first.end());
        buffer.push_back('\0');
        std::vector<char> encoded(roomNeeded(entry.second) + 1, '\0');
        const int n = entry.second.getBinaryValue(encoded.data(), static_cast<int>(encoded.size()));
        buffer.insert(buffer.end(), encoded.begin(), encoded.begin() + n);
    }
    buffer.push_back('\0');  // the decoders may look one byte past what they count
    list.createFromBinary(buffer.data(), static_cast<int>(buffer.size() - 1),
                          static_cast<int>(buffer.size()));
}

NamedValues toNamedValues(py::handle params) {
    NamedValues values;
    if (params.is_none()) {
        return values;
    }
    if (py::isinstance<ParameterList>(params)) {
        return listEntries(params.cast<const ParameterList&>());
    }
    if (!PyDict_Check(params.ptr())) {
        throwTypeError("parameters must be a dict or a tarn.ParameterList, not " + typeOf(params));
    }
    for (auto item : py::reinterpret_borrow<py::dict>(params)) {
        const std::string name = toText(item.first, "a parameter name");
        values.emplace_back(name, toValue(item.second, "parameter '" + name + "'"));
    }
    return values;
}

py::dict namedValuesToDict(const NamedValues& values) {
    py::dict out;
    for (const auto& entry : values) {
        out[textToPython(entry.first)] = fromValue(entry.second);
    }
    return out;
}

// ---- sizes -------------------------------------------------------------------------------------

std::size_t roomNeeded(const ParameterValue& value) {
    switch (value.getType()) {
        case TYPE_INT:
            return 5;
        case TYPE_FLOAT:
            return 6;  // the float asks for one byte more than it writes
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

bool listEncodingWouldAbort(const ParameterList& list, int size) {
    if (size <= 0) {
        return false;
    }
    // Names as the list holds them; the values' types from the encoding, which is exact as long as
    // no name holds a NUL (the encoder writes such a name only up to it). Otherwise every value is
    // given the most room its text could ask for.
    std::vector<std::pair<std::string, std::string>> texts;
    std::string name;
    std::string text;
    bool nulInName = false;
    for (unsigned int i = 0; list.getParam(i, name, text); ++i) {
        texts.emplace_back(name, text);
        nulInName = nulInName || name.find('\0') != std::string::npos;
    }
    NamedValues typed;
    if (!nulInName) {
        typed = listEntries(list);
    }
    long long pos = 1;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        const std::string& entryName = texts[i].first;
        if (pos + static_cast<long long>(entryName.size()) + 1 > size) {
            return false;  // the encoder stops here and returns 0
        }
        pos += static_cast<long long>(entryName.size()) + 1;
        std::size_t room = std::max<std::size_t>(6, texts[i].second.size() + 2);
        std::size_t written = room;
        if (i < typed.size()) {
            room = roomNeeded(typed[i].second);
            written = bytesWritten(typed[i].second);
        }
        if (static_cast<long long>(room) > size - pos) {
            return true;
        }
        pos += static_cast<long long>(written);
    }
    return false;
}

std::size_t callRoom(const std::string& function, const NamedValues& params) {
    // Follows ParameterList::getBinary: room is tested before each name, and the value after it
    // must fit too.
    std::map<std::string, const ParameterValue*> sorted;
    for (const auto& entry : params) {
        sorted[entry.first] = &entry.second;
    }
    const std::size_t head = function.size() + 1;
    std::size_t pos = 1;
    std::size_t needed = head + 1;
    for (const auto& entry : sorted) {
        pos += entry.first.size() + 1;
        needed = std::max(needed, head + pos + roomNeeded(*entry.second));
        pos += bytesWritten(*entry.second);
        needed = std::max(needed, head + pos);
    }
    return needed;
}

void checkName(const std::string& name, const char* what) {
    if (name.find('\0') != std::string::npos) {
        throwValueError(std::string(what) + " contains a NUL byte: a TARN text ends at its first NUL");
    }
}

void checkValueText(const ParameterValue& value, const std::string& what) {
    if (value.getType() == TYPE_STRING && value.getAsString().find('\0') != std::string::npos) {
        throwValueError(what + " contains a NUL byte: a TARN text ends at its first NUL");
    }
}

namespace {

[[noreturn]] void throwTooLarge(const char* what, std::size_t needed) {
    throwValueError(std::string(what) + " is too large for one TARN message: it needs " +
                    std::to_string(needed) + " bytes of room, a message carries at most " +
                    std::to_string(kBodyRoom));
}

}  // namespace

void checkMessageFits(const std::string& name, const ParameterValue* value) {
    const std::size_t needed = name.size() + 1 + (value != nullptr ? roomNeeded(*value) : 0);
    if (needed > kBodyRoom) {
        throwTooLarge(value != nullptr ? "the message" : "the name", needed);
    }
}

void checkCallFits(const std::string& function, const NamedValues& params) {
    std::map<std::string, int> names;
    for (const auto& entry : params) {
        checkName(entry.first, "a parameter name");
        checkValueText(entry.second, "parameter '" + entry.first + "'");
        if (++names[entry.first] > 1) {
            throwValueError("parameter '" + entry.first + "' is given twice");
        }
    }
    if (names.size() > 255) {
        throwValueError("a call carries at most 255 parameters, not " + std::to_string(names.size()));
    }
    const std::size_t needed = callRoom(function, params);
    if (needed > kBodyRoom) {
        throwTooLarge("the call", needed);
    }
}

}  // namespace tarnpy
