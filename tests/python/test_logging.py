"""The library's log lines arrive in Python's logging, under the logger "tarn", at their level."""

import logging
import re

import pytest

import tarn
from conftest import wait_until


@pytest.fixture(autouse=True)
def default_level():
    tarn.set_log_level("warning")
    yield
    tarn.set_log_level("warning")


def tarn_records(caplog):
    return [(r.levelno, r.getMessage()) for r in caplog.records if r.name == "tarn"]


def test_an_error_line_from_the_calling_thread(caplog):
    with caplog.at_level(logging.DEBUG, logger="tarn"):
        with tarn.Connection("eudp") as connection:
            connection.allow_send_mode(False, False)
    records = tarn_records(caplog)
    assert len(records) == 1
    level, text = records[0]
    assert level == logging.ERROR
    assert re.fullmatch(r"TARN/EUDP\[\d+\]: allowing neither realtime nor reliable mode", text)


def test_a_warning_from_a_receive_thread(caplog, transport):
    accepted = []
    with caplog.at_level(logging.DEBUG, logger="tarn"):
        with tarn.Listener(transport) as listener:
            listener.listen("127.0.0.1", 0, accepted.append)  # no server callbacks
            assert wait_until(lambda: listener.get_local_port() != 0)
            with tarn.Connection(transport) as connection:
                assert connection.connect("127.0.0.1", listener.get_local_port())
                assert connection.subscribe("x")
                expected = (logging.WARNING, "TARN: received unexpected subscribe cmd (no server available)")
                assert wait_until(lambda: expected in tarn_records(caplog))
        for connection in accepted:
            connection.close()


def test_the_level_decides_which_lines_are_made(caplog):
    with caplog.at_level(logging.DEBUG, logger="tarn"):
        with tarn.Connection("tcp") as connection:
            connection.subscribe("a")  # fails at debug level: not made at warning
            tarn.set_log_level(logging.DEBUG)
            assert tarn.get_log_level() == logging.DEBUG
            connection.subscribe("b")
            tarn.set_log_level("error")
            assert tarn.get_log_level() == logging.ERROR
            connection.subscribe("c")
    assert tarn_records(caplog) == [(logging.DEBUG, "TARN: failed to send subscribe cmdb")]


def test_an_info_line(caplog):
    tarn.set_log_level("info")
    assert tarn.get_log_level() == logging.INFO
    with caplog.at_level(logging.DEBUG, logger="tarn"):
        listener = tarn.Listener("tcp")
        listener.listen("127.0.0.1", 0, None)
        assert wait_until(lambda: listener.get_local_port() != 0)
        assert listener.shutdown(-1)
        listener.close()
    assert (logging.INFO, "TARN: listener is shut down") in tarn_records(caplog)


def test_python_logging_filters_further(caplog):
    tarn.set_log_level("debug")
    with caplog.at_level(logging.ERROR, logger="tarn"):
        with tarn.Connection("tcp") as connection:
            connection.subscribe("x")
    assert tarn_records(caplog) == []


def test_bad_levels():
    with pytest.raises(ValueError):
        tarn.set_log_level("loud")
    with pytest.raises(TypeError):
        tarn.set_log_level(1.5)
