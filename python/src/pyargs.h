// Arguments that the bindings check themselves (bool apart from int, str or bytes, ranges), taken as
// Python objects but named in the generated signatures by what they accept, so that help() shows
// `port: int` rather than the binding's own object type.
#ifndef TARN_PYTHON_PYARGS_H
#define TARN_PYTHON_PYARGS_H

#include <pybind11/pybind11.h>

namespace tarnpy {

namespace py = pybind11;

template <class Tag>
struct Arg {
    py::object object;
    py::handle handle() const { return object; }
    bool isNone() const { return object.is_none(); }
};

struct TextTag {
    static constexpr auto name = py::detail::const_name("str");
};
struct ValueTag {
    static constexpr auto name = py::detail::const_name("Value");
};
struct IntTag {
    static constexpr auto name = py::detail::const_name("int");
};
struct OptionalIntTag {
    static constexpr auto name = py::detail::const_name("int | None");
};
struct FloatTag {
    static constexpr auto name = py::detail::const_name("float");
};
struct BoolTag {
    static constexpr auto name = py::detail::const_name("bool");
};
struct CallbackTag {
    static constexpr auto name = py::detail::const_name("Callable | None");
};
struct TransportTag {
    static constexpr auto name = py::detail::const_name("str | Transport");
};
struct ModeTag {
    static constexpr auto name = py::detail::const_name("str | ConnMode");
};
struct ParamsTag {
    static constexpr auto name = py::detail::const_name("dict | ParameterList | None");
};
struct TimeoutTag {
    static constexpr auto name = py::detail::const_name("float | None");
};
struct LevelTag {
    static constexpr auto name = py::detail::const_name("int | str");
};
struct AnyTag {
    static constexpr auto name = py::detail::const_name("Any");
};

using Text = Arg<TextTag>;
using ValueArg = Arg<ValueTag>;
using IntArg = Arg<IntTag>;
using OptionalInt = Arg<OptionalIntTag>;
using FloatArg = Arg<FloatTag>;
using BoolArg = Arg<BoolTag>;
using Callback = Arg<CallbackTag>;
using TransportArg = Arg<TransportTag>;
using ModeArg = Arg<ModeTag>;
using ParamsArg = Arg<ParamsTag>;
using Timeout = Arg<TimeoutTag>;
using LevelArg = Arg<LevelTag>;
using AnyArg = Arg<AnyTag>;

}  // namespace tarnpy

namespace pybind11 {
namespace detail {

template <class Tag>
struct type_caster<tarnpy::Arg<Tag>> {
    PYBIND11_TYPE_CASTER(tarnpy::Arg<Tag>, Tag::name);

    bool load(handle source, bool) {
        value.object = reinterpret_borrow<object>(source);
        return true;
    }
    static handle cast(const tarnpy::Arg<Tag>& source, return_value_policy, handle) {
        return source.object.inc_ref();
    }
};

}  // namespace detail
}  // namespace pybind11

#endif  // TARN_PYTHON_PYARGS_H
