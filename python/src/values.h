// Python values and TARN values, both ways, and the size rules of one TARN message.
//
// Sending: str (and bytes) is a text, int a 32-bit signed integer (ValueError out of range), bool a
// boolean (checked before int, so True never travels as 1), float a 32-bit float (ValueError beyond
// its range; inf and nan pass), None no value, and a ParameterValue is taken as it is. Receiving:
// the plain Python value of the type; a float is the 32-bit float widened, a text is decoded as
// UTF-8 with surrogate escapes for any other byte, and a foreign type tag stays a ParameterValue.
//
// Everything here needs the GIL.
#ifndef TARN_PYTHON_VALUES_H
#define TARN_PYTHON_VALUES_H

#include <pybind11/pybind11.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <parameterlist.h>

namespace tarnpy {

namespace py = pybind11;

using NamedValues = std::vector<std::pair<std::string, ParameterValue>>;

// Room after the 4-byte header of one TARN message.
const std::size_t kBodyRoom = 1488;

// `what` names the argument in error messages ("value", "parameter 'level'").
ParameterValue toValue(py::handle object, const std::string& what);
py::object fromValue(const ParameterValue& value);
// "string", "int", "bool", "float", "none" or "unknown".
const char* typeName(const ParameterValue& value);

// str (UTF-8, surrogate escapes back to their bytes) or bytes; TypeError otherwise.
std::string toText(py::handle object, const std::string& what);
py::str textToPython(const std::string& text);

// The forced types: tarn.Int(x), tarn.Float(x), tarn.Bool(x), tarn.Str(x).
ParameterValue forceInt(py::handle object);
ParameterValue forceFloat(py::handle object);
ParameterValue forceBool(py::handle object);
ParameterValue forceString(py::handle object);

// The entries of a list in name order, with their typed values.
NamedValues listEntries(const ParameterList& list);
void fillList(const NamedValues& values, ParameterList& list);
// A dict or a ParameterList (or None: empty) as named values, names checked.
NamedValues toNamedValues(py::handle params);
py::dict namedValuesToDict(const NamedValues& values);

// Room that ParameterValue::getBinaryValue asks for, and the bytes it then writes.
std::size_t roomNeeded(const ParameterValue& value);
std::size_t bytesWritten(const ParameterValue& value);

// Whether ParameterList::getBinary into `size` bytes would reach its assertion (a value that does
// not fit after its name), which ends the process.
bool listEncodingWouldAbort(const ParameterList& list, int size);
// The room a call needs in the message body: function name and NUL, then the list.
std::size_t callRoom(const std::string& function, const NamedValues& params);

// The checks of the high-level API: a text that a TARN message cannot carry whole raises ValueError.
void checkName(const std::string& name, const char* what);
void checkValueText(const ParameterValue& value, const std::string& what);
void checkMessageFits(const std::string& name, const ParameterValue* value);
void checkCallFits(const std::string& function, const NamedValues& params);

void bindValues(py::module_& module);

}  // namespace tarnpy

#endif  // TARN_PYTHON_VALUES_H
