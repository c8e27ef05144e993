// The compiled part of the tarn package. Importing it starts the library (unless the process had
// already done so), sends the library's log lines to Python's logging, and registers the exit hook
// that closes whatever is still open and shuts the library down again.
#include <pybind11/pybind11.h>

#include <cctype>
#include <string>

#include <logging/logging.h>
#include <sal/cmdprocessor.h>
#include <sal/singleton.h>
#include <tarnconnection.h>

#include "exact.h"
#include "pyargs.h"
#include "runtime.h"
#include "values.h"

namespace py = pybind11;
namespace Log = Corvane::Utilities::Logging;

namespace tarnpy {
void bindHighLevel(py::module_& module);
}

namespace {

Log::ELogLevel parseLevel(py::handle level) {
    if (PyUnicode_Check(level.ptr())) {
        std::string name = level.cast<std::string>();
        for (char& c : name) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        if (name == "error" || name == "critical") {
            return Log::eError;
        }
        if (name == "warning" || name == "warn") {
            return Log::eWarning;
        }
        if (name == "info") {
            return Log::eInfo;
        }
        if (name == "debug") {
            return Log::eDebug;
        }
        throw py::value_error(
            "level must be 'error', 'warning', 'info' or 'debug', or a logging level number");
    }
    if (PyLong_Check(level.ptr()) && !PyBool_Check(level.ptr())) {
        const long value = level.cast<long>();
        return value <= 10   ? Log::eDebug
               : value <= 20 ? Log::eInfo
               : value <= 30 ? Log::eWarning
                             : Log::eError;
    }
    throw py::type_error("level must be a logging level (int) or its name");
}

int levelNumber(Log::ELogLevel level) {
    switch (level) {
        case Log::eError:
            return 40;
        case Log::eWarning:
            return 30;
        case Log::eInfo:
            return 20;
        case Log::eDebug:
            return 10;
    }
    return 40;
}

}  // namespace

PYBIND11_MODULE(_tarn, m) {
    m.doc() = "The compiled part of tarn: libtarn's classes and the halves of Client and Server.";
    m.attr("__version__") = TARN_PYTHON_VERSION;
    // A process that embeds Python may have started the library already; it is started once.
    if (sal::SingletonDll<sal::CmdProcessor>::getInstance() == nullptr) {
        tarnInit();
    }
    tarnpy::installLogSink();
    tarnpy::bindValues(m);
    tarnpy::bindExact(m);
    tarnpy::bindHighLevel(m);
    m.def(
        "set_log_level",
        [](const tarnpy::LevelArg& level) {
            Log::LogManager::getInstance().setLevel(parseLevel(level.handle()));
        },
        py::arg("level"),
        "Which lines the library makes: logging.DEBUG/INFO/WARNING/ERROR or 'debug', 'info', 'warning', "
        "'error'. The default is warning, or what the environment variable TARN_LOG_LEVEL says. Every line "
        "made goes to the logger 'tarn' at its level.");
    m.def(
        "get_log_level", [] { return levelNumber(Log::LogManager::getInstance().getLevel()); },
        "The library's level as a logging level number.");
    m.def(
        "_reaper_drain",
        [](int timeoutMs) {
            tarnpy::ReleaseGil release;
            return tarnpy::Reaper::instance().drain(timeoutMs);
        },
        py::arg("timeout_ms"), "Waits until every closed connection has been freed (for tests).");
    py::module_::import("atexit").attr("register")(py::cpp_function([] { tarnpy::shutdownRuntime(); }));
}
