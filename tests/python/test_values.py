"""Values: the Python rules (int range, bool apart from int, float32, None, forced types) and the
library's own ParameterValue and ParameterList, with their text forms and encodings."""

import copy
import math
import struct

import pytest

import tarn

FLT_MAX = struct.unpack("<f", b"\xff\xff\x7f\x7f")[0]


def f32(x):
    return struct.unpack("<f", struct.pack("<f", x))[0]


# ---- Python values as TARN values -------------------------------------------------------------------


@pytest.mark.parametrize(
    "value, type_tag, plain",
    [
        ("text", tarn.TYPE_STRING, "text"),
        ("", tarn.TYPE_STRING, ""),
        ("grüß 😀", tarn.TYPE_STRING, "grüß 😀"),
        (b"raw\xff", tarn.TYPE_STRING, "raw\udcff"),
        (0, tarn.TYPE_INT, 0),
        (-7, tarn.TYPE_INT, -7),
        (2**31 - 1, tarn.TYPE_INT, 2**31 - 1),
        (-(2**31), tarn.TYPE_INT, -(2**31)),
        (True, tarn.TYPE_BOOL, True),
        (False, tarn.TYPE_BOOL, False),
        (1.5, tarn.TYPE_FLOAT, 1.5),
        (0.1, tarn.TYPE_FLOAT, f32(0.1)),
        (None, tarn.TYPE_NONE, None),
    ],
)
def test_python_values_take_their_tarn_type(value, type_tag, plain):
    v = tarn.ParameterValue(value)
    assert v.get_type() == type_tag
    assert v.value == plain
    assert type(v.value) is type(plain)


def test_bool_is_never_an_int():
    assert tarn.ParameterValue(True).get_int_value() is None
    assert tarn.ParameterValue(True).get_boolean_value() is True
    assert tarn.ParameterValue(1).get_boolean_value() is None
    assert tarn.ParameterValue(1).get_int_value() == 1
    assert tarn.ParameterValue(True) != tarn.ParameterValue(1)


@pytest.mark.parametrize("value", [2**31, -(2**31) - 1, 2**64, -(2**100)])
def test_int_out_of_32_bit_range_is_a_value_error(value):
    with pytest.raises(ValueError, match="32-bit signed integer range"):
        tarn.ParameterValue(value)
    with pytest.raises(ValueError, match="32-bit signed integer range"):
        tarn.Int(value)


def test_float_is_sent_as_32_bit_float():
    v = tarn.ParameterValue(0.1)
    assert v.get_float_value() == f32(0.1) != 0.1
    assert v.get_binary_value() == b"F" + struct.pack("<f", 0.1)
    assert math.isinf(tarn.ParameterValue(float("inf")).value)
    assert math.isnan(tarn.ParameterValue(float("nan")).value)
    # Just above the largest float still rounds down to it; beyond, the value is refused.
    assert tarn.ParameterValue(3.4028235e38).value == FLT_MAX
    with pytest.raises(ValueError, match="32-bit float range"):
        tarn.ParameterValue(1e39)
    with pytest.raises(ValueError, match="32-bit float range"):
        tarn.Float(-1e300)


@pytest.mark.parametrize("value", [object(), [1], {"a": 1}, 1 + 2j, {1}])
def test_other_types_are_a_type_error(value):
    with pytest.raises(TypeError, match="TARN cannot carry"):
        tarn.ParameterValue(value)


def test_forced_types():
    assert tarn.Float(3).get_type() == tarn.TYPE_FLOAT and tarn.Float(3).value == 3.0
    assert tarn.Int(3.0).get_type() == tarn.TYPE_INT and tarn.Int(3.0).value == 3
    assert tarn.Bool(1).value is True and tarn.Bool(0).value is False
    assert tarn.Str(42).get_type() == tarn.TYPE_STRING and tarn.Str(42).value == "42"
    assert tarn.Str(b"x").value == "x"
    with pytest.raises(TypeError):
        tarn.Int(True)
    with pytest.raises(ValueError):
        tarn.Int(2.5)
    with pytest.raises(TypeError):
        tarn.Int("5")
    with pytest.raises(TypeError):
        tarn.Float(False)
    with pytest.raises(TypeError):
        tarn.Float("1.5")
    with pytest.raises(ValueError):
        tarn.Bool(2)
    with pytest.raises(TypeError):
        tarn.Bool("yes")
    with pytest.raises(TypeError):
        tarn.Str(None)


# ---- ParameterValue as the library has it -----------------------------------------------------------


def test_default_value():
    v = tarn.ParameterValue()
    assert v.get_type() == tarn.TYPE_NONE == ord("N")
    assert v.get_as_string() == "INV"
    assert v.get_binary_value() == b"N"
    w = tarn.ParameterValue("x")
    assert w.create_from_binary(b"N") == 1
    assert w.get_type() == tarn.TYPE_NONE


@pytest.mark.parametrize(
    "value, text", [(True, "ON"), (False, "OFF"), (-7, "-7"), (0.5, "0.5"), (1234567.0, "1.23457e+06"), ("a b", "a b")]
)
def test_text_forms(value, text):
    assert tarn.ParameterValue(value).get_as_string() == text
    assert str(tarn.ParameterValue(value)) == text


def test_typed_getters_answer_only_their_type():
    v = tarn.ParameterValue(5)
    assert v.get_float_value() is None
    assert v.get_boolean_value() is None
    assert tarn.ParameterValue("5").get_int_value() is None


def test_encodings_and_room():
    assert tarn.ParameterValue(1).get_binary_value() == b"I\x01\x00\x00\x00"
    assert tarn.ParameterValue(1.0).get_binary_value() == b"F\x00\x00\x80\x3f"
    assert tarn.ParameterValue("").get_binary_value() == b"S\x00"
    assert tarn.ParameterValue("").get_binary_value(1) == b""
    assert tarn.ParameterValue(1).get_binary_value(5) == b"I\x01\x00\x00\x00"
    assert tarn.ParameterValue(1.0).get_binary_value(5) == b""  # the float asks for 6
    assert tarn.ParameterValue(1.0).get_binary_value(6) == b"F\x00\x00\x80\x3f"
    assert tarn.ParameterValue(True).get_binary_value(2) == b"B\x01"
    assert tarn.ParameterValue(True).get_binary_value(1) == b""


def test_decoding():
    v = tarn.ParameterValue()
    assert v.create_from_binary(b"B\x07") == 2 and v.value is True
    assert v.create_from_binary(b"Sab\x00", 3) == 4 and v.value == "ab"
    w = tarn.ParameterValue(1)
    assert w.create_from_binary(b"Sab\x00", 2) == 0
    assert w.get_type() == tarn.TYPE_STRING
    assert v.create_from_binary(b"") == 0
    z = tarn.ParameterValue()
    assert z.create_from_binary(b"\xc8") == 1
    assert z.get_type() == -56 and z.get_as_string() == "INV" and z.type_name == "unknown"
    assert z.get_binary_value() == b"\xc8"
    assert isinstance(z.value, tarn.ParameterValue)
    with pytest.raises(ValueError, match="larger than"):
        v.create_from_binary(b"I", 5)


def test_embedded_nul_encodes_whole_and_decodes_short():
    v = tarn.ParameterValue("a\x00b")
    encoded = v.get_binary_value()
    assert encoded == b"Sa\x00b\x00"
    w = tarn.ParameterValue()
    assert w.create_from_binary(encoded) == 3
    assert w.value == "a"


def test_equality_and_copy():
    assert tarn.ParameterValue(2) == tarn.ParameterValue(2)
    assert tarn.ParameterValue(2) != tarn.ParameterValue(3)
    assert tarn.ParameterValue(2) != tarn.ParameterValue(2.0)
    assert tarn.ParameterValue("a") == copy.copy(tarn.ParameterValue("a"))
    assert tarn.ParameterValue(tarn.ParameterValue(7)) == tarn.ParameterValue(7)
    assert repr(tarn.ParameterValue(1.5)) == "ParameterValue(tarn.Float(1.5))"
    assert repr(tarn.ParameterValue()) == "ParameterValue(None)"


# ---- ParameterList ----------------------------------------------------------------------------------


def test_list_in_name_order():
    lst = tarn.ParameterList()
    lst.add_boolean("b", True)
    lst.add_numeric("a", 1)
    assert lst.get_binary() == b"\x02a\x00I\x01\x00\x00\x00b\x00B\x01"
    assert lst.print() == "a = 1 b = ON "
    assert lst.get_param_at(0) == ("a", "1")
    assert lst.get_param_at(2) is None
    assert lst.to_dict() == {"a": 1, "b": True}
    assert len(lst) == 2


def test_list_getters():
    lst = tarn.ParameterList({"s": "x", "n": 5, "f": 1.5, "t": True})
    assert lst.get_param_int("s") is None
    assert lst.get_param_int("n") == 5
    assert lst.get_param_string("n") == "5"
    assert lst.get_param_string("f") == "1.5"
    assert lst.get_param_bool("t") is True
    assert lst.get_param_bool("missing") is None
    assert lst.get_param_string("missing") is None


def test_list_replaces_by_name_and_checks_types():
    lst = tarn.ParameterList()
    lst.add_numeric("x", 1)
    lst.add_string("x", "y")
    assert lst.items() == [("x", tarn.ParameterValue("y"))]
    with pytest.raises(TypeError):
        lst.add_boolean("b", 1)
    with pytest.raises(TypeError):
        lst.add_numeric("n", True)
    with pytest.raises(ValueError):
        lst.add_numeric("n", 2**31)
    with pytest.raises(TypeError):
        lst.add_float("f", "1.0")


def test_list_with_none_values():
    lst = tarn.ParameterList({"a": None, "b": 2})
    assert lst.to_dict() == {"a": None, "b": 2}
    assert lst.get_binary() == b"\x02a\x00Nb\x00I\x02\x00\x00\x00"


def test_empty_list():
    lst = tarn.ParameterList()
    assert lst.get_binary() == b"\x00"
    assert lst.print() == ""
    assert lst.create_from_binary(b"\x00") == 1


def test_list_decoding_merges_and_stops_at_a_short_name():
    lst = tarn.ParameterList({"keep": 1, "a": 5})
    assert lst.create_from_binary(b"\x02a\x00I\x09\x00\x00\x00bbbb") == 0
    assert lst.to_dict() == {"a": 9, "keep": 1}


def test_list_of_256_entries_encodes_count_zero():
    lst = tarn.ParameterList({f"n{i:03}": i for i in range(256)})
    encoded = lst.get_binary(100000)
    assert encoded[0] == 0
    fresh = tarn.ParameterList()
    assert fresh.create_from_binary(encoded) == 1
    assert len(fresh) == 0


def test_list_encoding_that_would_end_the_process_is_refused():
    lst = tarn.ParameterList({"n": 1})
    assert lst.get_binary(1) == b""  # the name does not fit: a plain refusal
    with pytest.raises(ValueError, match="would end the process"):
        lst.get_binary(3)  # the name fits, its value does not
    with pytest.raises(ValueError, match="would end the process"):
        lst.get_binary(7)  # the integer asks for 5 bytes of room after the name
    assert lst.get_binary(8) == b"\x01n\x00I\x01\x00\x00\x00"


def test_list_repr_and_str():
    lst = tarn.ParameterList({"a": 1})
    assert repr(lst) == "ParameterList({'a': 1})"
    assert str(lst) == "a = 1 "
