"""The API as the program meets it: absent, slow, broken, or of the wrong shape."""

from __future__ import annotations

import socket
import time

import pytest

from harness.expected import (CAUGHT, DISCOVERY, EMPTY_CYCLE, EMPTY_CYCLE_COMMANDS, FAILED_CONFIG_READ,
                              FAILED_WAN_QUERY, IPSEC_STOP, NO_WAN, PULL, TEARDOWN_COMMANDS)
from harness.gateway import (API_SOCKET, OVPN_PATH, PULL_PATH, SEMAPHORE, SYSLOG_PATH, WAN_PATH, wait_for)

UNREACHABLE = ("ERROR", "curl_easy_perform() failed: Couldn't connect to server")
BAD_JSON = ("ERROR", "api returned bad json")


def bad_code(number: int) -> tuple[str, str]:
    """Returns the record of an envelope with another code than 200."""
    return ("ERROR", f"api returned error code [{number}]")


# How a request fails, and the record that says so.
FAILURES = [
    pytest.param({"code": 404}, bad_code(404), id="code 404"),
    pytest.param({"code": 0}, bad_code(0), id="code 0"),
    pytest.param({"code": None}, bad_code(0), id="code null"),
    pytest.param({"code": True}, bad_code(1), id="code true"),
    pytest.param({"code": 4294967295}, bad_code(-1), id="largest code"),
    pytest.param({"body": '{"result": []}'}, bad_code(0), id="no code"),
    pytest.param({"body": "{}"}, bad_code(0), id="empty object"),
    pytest.param({"badJson": True}, BAD_JSON, id="cut short"),
    pytest.param({"body": ""}, BAD_JSON, id="empty body"),
    pytest.param({"body": '{"code": 200, "result": []} more'}, BAD_JSON, id="more text"),
    pytest.param({"body": '{"code": 200, "result": []} {}'}, BAD_JSON, id="more objects"),
    pytest.param({"body": '"200"'}, BAD_JSON, id="a string"),
    pytest.param({"body": "200"}, BAD_JSON, id="a number"),
    pytest.param({"body": "null"}, BAD_JSON, id="null"),
    pytest.param({"body": '/* a comment */ {"code": 200, "result": []}'}, BAD_JSON, id="a comment"),
    pytest.param({"body": '{"code": 500, "code": 200, "result": []}'}, BAD_JSON, id="a key twice"),
    pytest.param({"body": "<html></html>"}, BAD_JSON, id="html"),
    pytest.param({"close": "before"},
                 ("ERROR", "curl_easy_perform() failed: Server returned nothing (no headers, no data)"),
                 id="closed before the reply"),
    pytest.param({"close": "mid"}, ("ERROR", "curl_easy_perform() failed: Transferred a partial file"),
                 id="closed in the middle"),
    pytest.param({"status": 302, "location": WAN_PATH, "body": "moved"}, BAD_JSON, id="redirect"),
]


@pytest.mark.parametrize("fault, record", FAILURES)
def test_a_failed_wan_query_is_told_each_time_and_means_no_wan(gateway, fault, record):
    gateway.fault(WAN_PATH, **fault)
    run = gateway.run("-p", "100")
    assert run.exit_status() == 0
    assert run.log() == ([record, FAILED_WAN_QUERY] + DISCOVERY + IPSEC_STOP
                         + [record, FAILED_WAN_QUERY] + NO_WAN)
    assert gateway.trace() == TEARDOWN_COMMANDS


@pytest.mark.parametrize("fault, record", FAILURES)
def test_a_failed_pull_is_told_and_ends_the_cycle(gateway, fault, record):
    gateway.fault(PULL_PATH, **fault)
    run = gateway.run("-p", "100")
    assert run.exit_status() == 0
    assert run.log() == DISCOVERY + IPSEC_STOP + PULL + [record]
    assert gateway.trace() == TEARDOWN_COMMANDS


@pytest.mark.parametrize("path", [OVPN_PATH, SYSLOG_PATH])
@pytest.mark.parametrize("fault, record", FAILURES)
def test_a_failed_request_for_openvpn_is_told_once_by_the_cycle(gateway, path, fault, record):
    gateway.fault(path, **fault)
    run = gateway.run("-p", "100")
    assert run.exit_status() == 0
    assert run.log() == DISCOVERY + [FAILED_CONFIG_READ]
    assert record not in run.log()
    assert gateway.trace() == ["ip tunnel"]


def test_an_absent_socket_is_told(gateway):
    gateway.stop_api()
    run = gateway.run("-p", "100")
    assert run.exit_status() == 0
    assert run.log() == [UNREACHABLE, FAILED_WAN_QUERY] + DISCOVERY + [FAILED_CONFIG_READ]
    assert gateway.trace() == ["ip tunnel"]


def test_a_socket_that_nobody_serves_is_told(gateway):
    gateway.stop_api()
    with socket.socket(socket.AF_UNIX) as left_behind:
        left_behind.bind(str(gateway.path(API_SOCKET)))
    run = gateway.run("-p", "100")
    assert run.log() == [UNREACHABLE, FAILED_WAN_QUERY] + DISCOVERY + [FAILED_CONFIG_READ]


def test_an_api_that_comes_up_later_is_found_by_the_next_refresh(gateway):
    gateway.stop_api()
    daemon = gateway.ready_daemon()
    gateway.clear_trace()
    gateway.api()
    daemon.refresh()
    assert gateway.trace() == EMPTY_CYCLE_COMMANDS


def test_a_slow_reply_is_waited_for(gateway):
    gateway.fault(PULL_PATH, slow=0.5)
    begin = time.monotonic()
    run = gateway.run("-p", "100")
    assert time.monotonic() - begin >= 0.5
    assert run.log() == EMPTY_CYCLE


def test_a_reply_that_never_comes_blocks_until_the_api_ends(gateway):
    gateway.fault(PULL_PATH, hang=True)
    run = gateway.start("-p", "100")
    wait_for(lambda: PULL_PATH in gateway.requests())
    assert not run.has_ended()
    gateway.stop_api()
    assert run.exit_status() == 0
    assert run.log() == DISCOVERY + IPSEC_STOP + PULL + [
        ("ERROR", "curl_easy_perform() failed: Server returned nothing (no headers, no data)")]


def test_a_daemon_whose_refresh_hangs_is_stopped_once_the_api_ends(gateway):
    daemon = gateway.ready_daemon()
    gateway.fault(PULL_PATH, hang=True)
    asked = len(gateway.requests())
    gateway.signal(daemon.pid, 1)
    wait_for(lambda: PULL_PATH in gateway.requests()[asked:])
    gateway.signal(daemon.pid, 15)
    wait_for(lambda: not gateway.exists(SEMAPHORE))
    gateway.stop_api()
    assert daemon.exit_status() == 0


@pytest.mark.parametrize("fault", [
    pytest.param({"status": 500}, id="HTTP status 500"),
    pytest.param({"status": 302, "location": "/nowhere"}, id="redirect with a good body"),
])
def test_only_the_envelope_counts(gateway, fault):
    gateway.fault(WAN_PATH, **fault)
    run = gateway.run("-p", "100")
    assert run.log() == EMPTY_CYCLE
    assert "/nowhere" not in gateway.requests()


@pytest.mark.parametrize("body", [
    '{"code": 200, "result": [{"current": true, "ip": "198.51.100.2", "more": {}}], "other": [1]}',
    '{"code": 200.0, "result": [{"current": 1, "ip": "198.51.100.2"}]}',
    '\n {"result": [{"current": true, "ip": "198.51.100.2"}], "code": 200}\n ',
], ids=["unknown keys", "a real code", "white space"])
def test_a_well_formed_envelope_is_understood(gateway, body):
    gateway.fault(WAN_PATH, body=body)
    assert gateway.run("-p", "100").log() == EMPTY_CYCLE


# What the JSON library answers with an exception.
THROWING = [*[pytest.param({"code": code}, id=f"code {code!r}")
              for code in ("200", -1, -200, 4294967296, [], {})],
            pytest.param({"body": "[" * 2000}, id="nested too deeply"),
            pytest.param({"body": "[200]"}, id="an array")]


@pytest.mark.parametrize("fault", THROWING)
def test_an_envelope_that_the_library_refuses_is_an_exception(gateway, fault):
    gateway.fault(PULL_PATH, **fault)
    run = gateway.run("-p", "30")
    assert run.exit_status() == 1
    assert run.log() == [("INFO", "Managing tunnels"), CAUGHT]
    assert gateway.trace() == TEARDOWN_COMMANDS
    assert not gateway.exists(SEMAPHORE)


@pytest.mark.parametrize("path", [OVPN_PATH, SYSLOG_PATH])
@pytest.mark.parametrize("fault", THROWING)
def test_an_exception_in_the_openvpn_configuration_is_caught_there(gateway, path, fault):
    gateway.fault(path, **fault)
    run = gateway.run()
    assert run.exit_status() == 0
    assert run.log() == [("ERROR", "[TUNNEL_MNGR][OVPN] Conf::init catch exception"), FAILED_CONFIG_READ]
    assert gateway.trace() == ["ip tunnel"]


@pytest.mark.parametrize("variable", ["http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"])
def test_a_proxy_in_the_environment_does_not_matter(gateway, variable):
    run = gateway.run("-p", "100", environment={variable: "http://192.0.2.1:3128"})
    assert run.log() == EMPTY_CYCLE
    assert gateway.requests() == [WAN_PATH, OVPN_PATH, SYSLOG_PATH, WAN_PATH, PULL_PATH]


def test_a_large_reply_is_read_whole(gateway):
    gateway.api(greTunnels=[{"name": f"off{number}", "remoteIp": "192.0.2.7", "comment": "x" * 2000}
                            for number in range(1000)])
    run = gateway.run("-p", "100")
    passed = [text for _, text in run.log() if text.endswith("is not enabled")]
    assert passed == [f"Tunnel [off{number}] is not enabled" for number in range(1000)]
