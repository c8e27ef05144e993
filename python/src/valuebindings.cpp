// ParameterValue and ParameterList as Python classes, in the library's own terms: the typed getters
// answer None where the library answers false, and the binary forms are bytes.
#include <pybind11/stl.h>

#include <algorithm>
#include <climits>
#include <sstream>
#include <vector>

#include "pyargs.h"
#include "values.h"

namespace tarnpy {

namespace {

int clampSize(long long size) {
    return static_cast<int>(std::max<long long>(INT_MIN, std::min<long long>(INT_MAX, size)));
}

// The bytes of `data`, and how many of them the decoder may count (`size`, at most all of them).
// The decoder never reads beyond the bytes given.
struct BinaryInput {
    std::string bytes;
    int size;
};

BinaryInput binaryInput(const py::bytes& data, const OptionalInt& sizeArg) {
    py::object size = sizeArg.object;
    BinaryInput input{static_cast<std::string>(data), 0};
    input.size = static_cast<int>(std::min<std::size_t>(input.bytes.size(), INT_MAX));
    if (!size.is_none()) {
        const long long wanted = size.cast<long long>();
        if (wanted > static_cast<long long>(input.bytes.size())) {
            throw py::value_error("size " + std::to_string(wanted) + " is larger than the " +
                                  std::to_string(input.bytes.size()) + " bytes given");
        }
        input.size = clampSize(wanted);
    }
    return input;
}

std::string valueRepr(const ParameterValue& value) {
    const std::string type = typeName(value);
    if (type == "none") {
        return "ParameterValue(None)";
    }
    if (type == "unknown") {
        return "ParameterValue(<unknown type tag " + std::to_string(value.getType()) + ">)";
    }
    std::string shown = py::repr(fromValue(value)).cast<std::string>();
    if (type == "float") {
        shown = "tarn.Float(" + shown + ")";
    }
    return "ParameterValue(" + shown + ")";
}

bool sameValue(const ParameterValue& a, const ParameterValue& b) {
    if (a.getType() != b.getType()) {
        return false;
    }
    float fa = 0.0f;
    float fb = 0.0f;
    if (a.getFloatValue(fa) && b.getFloatValue(fb)) {
        return fa == fb;
    }
    return a.getAsString() == b.getAsString();
}

// Call the getter before this: the arguments of one call are evaluated in no fixed order.
template <class T>
py::object optional(bool ok, const T& value) {
    return ok ? py::cast(value) : py::none();
}

void bindParameterValue(py::module_& m) {
    py::class_<ParameterValue>(m, "ParameterValue", R"doc(
One typed TARN value: a text, a 32-bit signed integer, a boolean, a 32-bit float, or no value.

``ParameterValue(x)`` takes ``str`` or ``bytes`` (text), ``int`` (32-bit signed; ValueError outside
-2147483648..2147483647), ``bool`` (never taken as an integer), ``float`` (rounded to 32 bits;
ValueError beyond the 32-bit range) or ``None`` (no value, the default). The typed getters answer
``None`` when the value is of another type; there is no conversion between types.)doc")
        .def(py::init([](const ValueArg& value) { return toValue(value.handle(), "value"); }),
             py::arg("value") = py::none())
        .def("get_type", &ParameterValue::getType,
             "The type tag: TYPE_STRING, TYPE_INT, TYPE_BOOL, TYPE_FLOAT, TYPE_NONE, or a foreign tag byte "
             "read from the wire (sign-extended: 0xC8 is -56).")
        .def_property_readonly(
            "type_name", [](const ParameterValue& v) { return typeName(v); },
            "'string', 'int', 'bool', 'float', 'none' or 'unknown'.")
        .def(
            "get_int_value",
            [](const ParameterValue& v) {
                int out = 0;
                const bool ok = v.getIntValue(out);
                return optional(ok, out);
            },
            "The integer, or None when the value is not an integer.")
        .def(
            "get_boolean_value",
            [](const ParameterValue& v) {
                bool out = false;
                const bool ok = v.getBooleanValue(out);
                return optional(ok, out);
            },
            "The boolean, or None when the value is not a boolean.")
        .def(
            "get_float_value",
            [](const ParameterValue& v) {
                float out = 0.0f;
                const bool ok = v.getFloatValue(out);
                return optional(ok, static_cast<double>(out));
            },
            "The 32-bit float widened, or None when the value is not a float.")
        .def(
            "get_as_string", [](const ParameterValue& v) { return textToPython(v.getAsString()); },
            "The text form: the text itself, 'ON'/'OFF', decimal, 6 significant digits for a float, "
            "'INV' for no value or a foreign type.")
        .def_property_readonly(
            "value", [](const ParameterValue& v) { return fromValue(v); },
            "The plain Python value: str, int, bool, float or None (a foreign type gives the "
            "ParameterValue itself).")
        .def(
            "get_binary_value",
            [](const ParameterValue& v, long long size) {
                const int room = clampSize(size);
                std::vector<char> buffer(std::max<std::size_t>(
                    1, std::min<std::size_t>(roomNeeded(v), static_cast<std::size_t>(std::max(room, 1)))));
                const int n = v.getBinaryValue(buffer.data(), room);
                return py::bytes(buffer.data(), static_cast<std::size_t>(std::max(n, 0)));
            },
            py::arg("size") = static_cast<long long>(kBodyRoom),
            "The binary encoding (tag byte, then the payload) if it fits `size` bytes, else b''. A float "
            "asks for 6 bytes of room although it writes 5.")
        .def(
            "create_from_binary",
            [](ParameterValue& v, const py::bytes& data, const OptionalInt& size) {
                BinaryInput input = binaryInput(data, size);
                return v.createFromBinary(input.bytes.data(), input.size,
                                          static_cast<int>(input.bytes.size()));
            },
            py::arg("data"), py::arg("size") = py::none(),
            "Reads one encoding from `data` (of which `size` bytes are counted, all by default) into this "
            "value; returns the bytes consumed, or 0. The type changes even when the rest is refused.")
        .def("__str__", [](const ParameterValue& v) { return textToPython(v.getAsString()); })
        .def("__repr__", &valueRepr)
        .def(
            "__eq__",
            [](const ParameterValue& a, py::object other) {
                if (!py::isinstance<ParameterValue>(other)) {
                    return py::reinterpret_borrow<py::object>(Py_NotImplemented);
                }
                return py::cast(sameValue(a, other.cast<const ParameterValue&>()));
            },
            py::is_operator())
        .def("__copy__", [](const ParameterValue& v) { return ParameterValue(v); })
        .def("__deepcopy__", [](const ParameterValue& v, py::object) { return ParameterValue(v); })
        .attr("__hash__") = py::none();
}

bool requireBool(py::handle value) {
    if (!PyBool_Check(value.ptr())) {
        throw py::type_error("value must be a bool, not " +
                             py::str(py::type::handle_of(value).attr("__name__")).cast<std::string>());
    }
    return value.ptr() == Py_True;
}

void bindParameterList(py::module_& m) {
    py::class_<ParameterList>(m, "ParameterList", R"doc(
Named TARN values in name order (names compared as bytes), one per name: the arguments of a call.

``ParameterList({"level": 3, "mode": "eco"})`` fills it from a dict with the value rules of
ParameterValue; the ``add_*`` methods set one entry of their type, replacing an entry of that name.
The getters by name answer None when the entry is missing or of another type.)doc")
        .def(py::init([](const ParamsArg& params) {
                 ParameterList list;
                 fillList(toNamedValues(params.handle()), list);
                 return list;
             }),
             py::arg("params") = py::none())
        .def(
            "add_string",
            [](ParameterList& l, const Text& name, const Text& value) {
                l.addString(toText(name.handle(), "name"), toText(value.handle(), "value"));
            },
            py::arg("name"), py::arg("value"), "Sets `name` to a text (str or bytes).")
        .def(
            "add_boolean",
            [](ParameterList& l, const Text& name, const BoolArg& value) {
                l.addBoolean(toText(name.handle(), "name"), requireBool(value.handle()));
            },
            py::arg("name"), py::arg("value"), "Sets `name` to a boolean (a bool, not an int).")
        .def(
            "add_float",
            [](ParameterList& l, const Text& name, const FloatArg& value) {
                float f = 0.0f;
                forceFloat(value.handle()).getFloatValue(f);
                l.addFloat(toText(name.handle(), "name"), f);
            },
            py::arg("name"), py::arg("value"), "Sets `name` to a 32-bit float.")
        .def(
            "add_numeric",
            [](ParameterList& l, const Text& name, const IntArg& valueArg) {
                py::handle value = valueArg.handle();
                if (PyBool_Check(value.ptr()) || !(PyLong_Check(value.ptr()) || PyIndex_Check(value.ptr()))) {
                    throw py::type_error(
                        "value must be an int, not " +
                        py::str(py::type::handle_of(value).attr("__name__")).cast<std::string>());
                }
                int i = 0;
                toValue(value, "value").getIntValue(i);
                l.addNumeric(toText(name.handle(), "name"), i);
            },
            py::arg("name"), py::arg("value"), "Sets `name` to a 32-bit signed integer.")
        .def(
            "get_param_string",
            [](ParameterList& l, const Text& name) {
                std::string out;
                return l.getParam(toText(name.handle(), "name"), out) ? py::object(textToPython(out))
                                                                      : py::none();
            },
            py::arg("name"), "The text form of the entry (any type), or None when there is no such entry.")
        .def(
            "get_param_int",
            [](ParameterList& l, const Text& name) {
                int out = 0;
                const bool ok = l.getParam(toText(name.handle(), "name"), out);
                return optional(ok, out);
            },
            py::arg("name"), "The integer entry, or None when it is missing or not an integer.")
        .def(
            "get_param_bool",
            [](ParameterList& l, const Text& name) {
                bool out = false;
                const bool ok = l.getParam(toText(name.handle(), "name"), out);
                return optional(ok, out);
            },
            py::arg("name"), "The boolean entry, or None when it is missing or not a boolean.")
        .def(
            "get_param_at",
            [](const ParameterList& l, long long index) -> py::object {
                std::string name;
                std::string text;
                if (index < 0 || index > UINT_MAX ||
                    !l.getParam(static_cast<unsigned int>(index), name, text)) {
                    return py::none();
                }
                return py::make_tuple(textToPython(name), textToPython(text));
            },
            py::arg("index"),
            "(name, text form) of the entry at `index` in name order, or None past the end.")
        .def(
            "print",
            [](const ParameterList& l) {
                std::ostringstream out;
                l.print(out);
                return textToPython(out.str());
            },
            "The text form: 'name = text ' for every entry, on one line.")
        .def(
            "get_binary",
            [](const ParameterList& l, long long size) {
                const int room = clampSize(size);
                if (listEncodingWouldAbort(l, room)) {
                    throw py::value_error("a value does not fit the " + std::to_string(room) +
                                          " bytes after its name (the encoder would end the process)");
                }
                std::string name;
                std::string text;
                std::size_t need = 16;
                for (unsigned int i = 0; l.getParam(i, name, text); ++i) {
                    need += name.size() + text.size() + 16;
                }
                std::vector<char> buffer(std::max<std::size_t>(
                    1, std::min<std::size_t>(need, static_cast<std::size_t>(std::max(room, 1)))));
                const int n = l.getBinary(buffer.data(), room);
                return py::bytes(buffer.data(), static_cast<std::size_t>(std::max(n, 0)));
            },
            py::arg("size") = static_cast<long long>(kBodyRoom),
            "The binary encoding (count byte, then name, NUL and value per entry) if it fits `size` bytes, "
            "else b''. ValueError where the library would end the process: a value that does not fit "
            "after its name.")
        .def(
            "create_from_binary",
            [](ParameterList& l, const py::bytes& data, const OptionalInt& size) {
                BinaryInput input = binaryInput(data, size);
                return l.createFromBinary(input.bytes.data(), input.size,
                                          static_cast<int>(input.bytes.size()));
            },
            py::arg("data"), py::arg("size") = py::none(),
            "Merges one encoding from `data` into this list; returns the bytes consumed, or 0 (entries read "
            "before a failure stay). The count byte is read as signed.")
        .def(
            "items",
            [](const ParameterList& l) {
                py::list out;
                for (const auto& entry : listEntries(l)) {
                    out.append(py::make_tuple(textToPython(entry.first), entry.second));
                }
                return out;
            },
            "[(name, ParameterValue), ...] in name order.")
        .def(
            "to_dict", [](const ParameterList& l) { return namedValuesToDict(listEntries(l)); },
            "{name: plain Python value} in name order.")
        .def("__len__",
             [](const ParameterList& l) {
                 std::string name;
                 std::string text;
                 unsigned int n = 0;
                 while (l.getParam(n, name, text)) {
                     ++n;
                 }
                 return n;
             })
        .def("__str__",
             [](const ParameterList& l) {
                 std::ostringstream out;
                 l.print(out);
                 return textToPython(out.str());
             })
        .def("__repr__", [](const ParameterList& l) {
            return "ParameterList(" + py::repr(namedValuesToDict(listEntries(l))).cast<std::string>() + ")";
        });
}

}  // namespace

void bindValues(py::module_& m) {
    bindParameterValue(m);
    bindParameterList(m);
    m.attr("TYPE_NONE") = static_cast<int>(TYPE_NONE);
    m.attr("TYPE_STRING") = static_cast<int>(TYPE_STRING);
    m.attr("TYPE_INT") = static_cast<int>(TYPE_INT);
    m.attr("TYPE_BOOL") = static_cast<int>(TYPE_BOOL);
    m.attr("TYPE_FLOAT") = static_cast<int>(TYPE_FLOAT);
    m.attr("MAX_BODY") = kBodyRoom;
    m.def(
        "Int", [](const IntArg& v) { return forceInt(v.handle()); }, py::arg("value"),
        "The value as a TARN integer (32-bit signed): an int, or a float with no fractional part.");
    m.def(
        "Float", [](const FloatArg& v) { return forceFloat(v.handle()); }, py::arg("value"),
        "The value as a TARN 32-bit float: any real number but a bool.");
    m.def(
        "Bool", [](const BoolArg& v) { return forceBool(v.handle()); }, py::arg("value"),
        "The value as a TARN boolean: a bool, 0 or 1.");
    m.def(
        "Str", [](const AnyArg& v) { return forceString(v.handle()); }, py::arg("value"),
        "The value as a TARN text: str or bytes as it is, anything else as str(value).");
}

}  // namespace tarnpy
