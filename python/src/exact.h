// The library's own model for Python: Connection (TARNConnection) and Listener (TARNListener), with
// the client and server callbacks given as Python callables.
//
// Callbacks run on the library's threads and take the GIL; an exception they raise is logged to the
// "tarn" logger and the connection goes on. Every library call releases the GIL. Closing (close(),
// the end of a `with` block, or the last reference going away) disconnects at once and deletes the
// connection on the reaper, so it is safe from a callback and from any thread.
#ifndef TARN_PYTHON_EXACT_H
#define TARN_PYTHON_EXACT_H

#include <pybind11/pybind11.h>

namespace tarnpy {

namespace py = pybind11;

void bindExact(py::module_& module);

// "tcp"/"eudp" or a Transport value; ValueError otherwise. True for TCP.
bool parseTransport(py::handle transport);
// "realtime"/"reliable" or a ConnMode value.
int parseMode(py::handle mode);
// A port number 0..65535 (ValueError otherwise).
unsigned short parsePort(py::handle port);

}  // namespace tarnpy

#endif  // TARN_PYTHON_EXACT_H
