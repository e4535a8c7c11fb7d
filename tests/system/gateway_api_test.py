"""The stand-in of the gateway's API, run as the tool that it is."""

from __future__ import annotations

import http.client
import json
import os
import signal
import socket
import subprocess
import sys
import threading
import time
from pathlib import Path

import pytest

TOOL = Path(__file__).resolve().parents[2] / "tools" / "gateway-api"
PULL = "/api?fields=greTunnels,ipsecTunnels"
WANS = [{"current": True, "ip": "198.51.100.2"}]

# A deadline for what takes moments, or seconds on a busy machine.
PATIENCE = 60


class UnixConnection(http.client.HTTPConnection):
    """An HTTP connection over a Unix socket."""

    def __init__(self, path: Path) -> None:
        super().__init__("localhost", timeout=PATIENCE)
        self._path = path

    def connect(self) -> None:
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(str(self._path))


class Tool:
    """A running gateway-api with its files in one directory."""

    def __init__(self, directory: Path) -> None:
        self.socket = directory / "run" / "http.sock"
        self.state = directory / "state.json"
        self.log = directory / "requests.log"
        self.complaints = directory / "stderr"
        self.process: subprocess.Popen | None = None

    def write(self, state: object) -> None:
        """Replaces the state file; a text is written as it stands."""
        draft = self.state.with_suffix(".new")
        draft.write_text(state if isinstance(state, str) else json.dumps(state))
        draft.rename(self.state)

    def start(self, *options: str) -> subprocess.Popen:
        """Starts the tool and waits until it serves or has ended."""
        self.process = subprocess.Popen(
            [sys.executable, TOOL, "--socket", self.socket, "--log", self.log, *options, self.state],
            stdout=subprocess.PIPE, stderr=self.complaints.open("w"), text=True)
        self.process.stdout.readline()
        return self.process

    def get(self, path: str) -> tuple[int, str]:
        """Returns HTTP status and body of one request."""
        connection = UnixConnection(self.socket)
        try:
            connection.request("GET", path)
            reply = connection.getresponse()
            return reply.status, reply.read().decode()
        finally:
            connection.close()

    def json(self, path: str) -> object:
        """Returns the parsed envelope of one request."""
        return json.loads(self.get(path)[1])


@pytest.fixture
def tool(tmp_path):
    """A tool that is not started yet and is gone after the test."""
    made = Tool(tmp_path)
    yield made
    if made.process:
        made.process.kill()
        made.process.wait()
        made.process.stdout.close()


def serve(tool: Tool, state: dict, *options: str) -> Tool:
    """Starts the tool with a state."""
    tool.write(state)
    tool.start(*options)
    return tool


def test_answers_each_path_from_the_state_file(tool):
    serve(tool, {"wans": WANS, "greTunnels": [{"name": "a"}], "ipsecTunnels": [],
                 "ovpnTunnels": [{"name": "o"}], "syslog": {"logLevel": 30}})
    assert tool.json("/api/waninfo/wans") == {"code": 200, "result": WANS}
    assert tool.json(PULL) == {"code": 200, "result": {"greTunnels": [{"name": "a"}],
                                                       "ipsecTunnels": []}}
    assert tool.json("/api?fields=ovpnTunnels") == {"code": 200,
                                                    "result": {"ovpnTunnels": [{"name": "o"}]}}
    assert tool.json("/api?fields=syslog") == {"code": 200, "result": {"syslog": {"logLevel": 30}}}


def test_answers_any_combination_of_keys_and_leaves_missing_ones_out(tool):
    serve(tool, {"syslog": {}, "other": 7, "faults": {}})
    assert tool.json("/api?fields=other,syslog,absent") == {"code": 200,
                                                            "result": {"other": 7, "syslog": {}}}
    assert tool.json("/api") == {"code": 200, "result": {"other": 7, "syslog": {}}}
    assert tool.json("/api?fields=faults") == {"code": 200, "result": {}}


@pytest.mark.parametrize("path", ["/", "/api/", "/api/waninfo", "/other?fields=syslog"])
def test_answers_an_unknown_path_with_code_404(tool, path):
    serve(tool, {"syslog": {}})
    assert tool.json(path) == {"code": 404, "result": None}


def test_answers_an_empty_list_without_wans(tool):
    serve(tool, {})
    assert tool.json("/api/waninfo/wans") == {"code": 200, "result": []}


def test_reads_the_state_file_again_when_it_changes(tool):
    serve(tool, {"wans": WANS})
    tool.write({"wans": []})
    assert tool.json("/api/waninfo/wans")["result"] == []


@pytest.mark.parametrize("bad, why", [
    ("{", "is not valid JSON"),
    ("[]", "the state is a JSON object"),
    ('{"faults": []}', '"faults" is an object'),
    ('{"faults": {"*": {"hnag": true}}}', 'faults, "*": unknown key "hnag"'),
    ('{"faults": {"*": {"slow": "1"}}}', '"slow" is a number'),
    ('{"faults": {"*": {"close": "late"}}}', '"close" is "before" or "mid"'),
])
def test_serves_the_last_good_state_and_complains_once_about_a_bad_one(tool, bad, why):
    serve(tool, {"wans": WANS})
    tool.write(bad)
    for _ in range(2):
        assert tool.json("/api/waninfo/wans")["result"] == WANS
    complaints = tool.complaints.read_text().splitlines()
    assert len(complaints) == 1
    assert why in complaints[0]
    assert complaints[0].endswith("still serving the last good state")


def test_serves_the_last_good_state_when_the_file_is_gone(tool):
    serve(tool, {"wans": WANS})
    tool.state.unlink()
    assert tool.json("/api/waninfo/wans")["result"] == WANS
    assert "cannot read" in tool.complaints.read_text()


@pytest.mark.parametrize("fault, body", [
    ({"code": 500}, '{"code": 500, "result": null}'),
    ({"code": "200"}, '{"code": "200", "result": null}'),
    ({"result": 5}, '{"code": 200, "result": 5}'),
    ({"body": "no json"}, "no json"),
    ({"badJson": True}, '{"code": 200, "result": {"syslog": {}}'),
])
def test_gives_a_faulty_body(tool, fault, body):
    serve(tool, {"syslog": {}, "faults": {"/api?fields=syslog": fault}})
    assert tool.get("/api?fields=syslog") == (200, body)
    assert tool.json("/api/waninfo/wans")["code"] == 200


def test_gives_another_http_status(tool):
    serve(tool, {"faults": {"*": {"status": 302, "location": "/x", "body": "moved"}}})
    assert tool.get("/api") == (302, "moved")


def test_closes_before_the_reply(tool):
    serve(tool, {"faults": {"*": {"close": "before"}}})
    with pytest.raises(http.client.RemoteDisconnected):
        tool.get("/api")


def test_closes_in_the_middle_of_the_reply(tool):
    serve(tool, {"wans": WANS, "faults": {"*": {"close": "mid"}}})
    with pytest.raises(http.client.IncompleteRead) as caught:
        tool.get("/api/waninfo/wans")
    assert 0 < len(caught.value.partial) < len(json.dumps({"code": 200, "result": WANS}))


def test_answers_slowly(tool):
    serve(tool, {"faults": {"*": {"slow": 0.3}}})
    begin = time.monotonic()
    assert tool.json("/api")["code"] == 200
    assert time.monotonic() - begin >= 0.3


def test_a_hanging_request_holds_up_no_other_and_ends_with_the_tool(tool):
    serve(tool, {"wans": WANS, "faults": {"/api": {"hang": True}}})
    outcome: list[Exception] = []

    def hang() -> None:
        try:
            tool.get("/api")
        except (http.client.HTTPException, OSError) as error:
            outcome.append(error)

    thread = threading.Thread(target=hang)
    thread.start()
    wait_for_requests(tool, 1)
    assert tool.json("/api/waninfo/wans")["result"] == WANS
    assert thread.is_alive()
    tool.process.terminate()
    thread.join(PATIENCE)
    assert len(outcome) == 1


def wait_for_requests(tool: Tool, number: int) -> None:
    """Waits until the log has so many lines."""
    limit = time.monotonic() + PATIENCE
    while len(tool.log.read_text().splitlines()) < number:
        assert time.monotonic() < limit
        time.sleep(0.01)


def test_a_fault_may_skip_requests_and_end_after_some(tool):
    serve(tool, {"wans": WANS, "faults": {"/api/waninfo/wans": {"code": 500, "skip": 1, "times": 2}}})
    assert [tool.json("/api/waninfo/wans")["code"] for _ in range(5)] == [200, 500, 500, 200, 200]


def test_takes_faults_at_start_and_prefers_those_of_the_file(tool):
    serve(tool, {"faults": {"/a": {"code": 501}}},
          "--fault", "*", '{"code": 500}', "--fault", "/b", '{"code": 502}')
    assert [tool.json(path)["code"] for path in ("/a", "/b", "/c")] == [501, 502, 500]


@pytest.mark.parametrize("options, why", [
    (["--fault", "*", "{"], "--fault *: not valid JSON"),
    (["--fault", "*", '{"x": 1}'], '--fault *: unknown key "x"'),
])
def test_refuses_a_bad_fault_at_start(tool, options, why):
    tool.write({})
    assert tool.start(*options).wait(PATIENCE) == 1
    assert why in tool.complaints.read_text()


@pytest.mark.parametrize("state", [None, "{", "5"])
def test_refuses_a_bad_state_file_at_start(tool, state):
    if state is not None:
        tool.write(state)
    assert tool.start().wait(PATIENCE) == 1
    assert tool.complaints.read_text().startswith("gateway-api: ")
    assert not tool.socket.exists()


def test_logs_each_request_with_the_monotonic_time(tool):
    serve(tool, {})
    begin = time.monotonic_ns() / 1e6
    tool.get("/api?fields=syslog")
    tool.get("/x")
    lines = [line.split(" ", 1) for line in tool.log.read_text().splitlines()]
    assert [path for _, path in lines] == ["/api?fields=syslog", "/x"]
    assert begin <= float(lines[0][0]) <= float(lines[1][0]) <= time.monotonic_ns() / 1e6


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_removes_its_socket_at_the_end(tool, number):
    serve(tool, {})
    assert tool.socket.is_socket()
    tool.process.send_signal(number)
    assert tool.process.wait(PATIENCE) == 0
    assert not tool.socket.exists()


def test_replaces_a_socket_that_nobody_serves(tool):
    tool.socket.parent.mkdir()
    with socket.socket(socket.AF_UNIX) as left_behind:
        left_behind.bind(str(tool.socket))
    serve(tool, {"wans": WANS})
    assert tool.json("/api/waninfo/wans")["result"] == WANS


def test_leaves_a_socket_that_is_served_alone(tool, tmp_path):
    serve(tool, {"wans": WANS})
    second = subprocess.run([sys.executable, TOOL, "--socket", tool.socket, tool.state],
                            capture_output=True, text=True, timeout=PATIENCE)
    assert (second.returncode, "served by another process" in second.stderr) == (1, True)
    assert tool.json("/api/waninfo/wans")["result"] == WANS


def test_leaves_a_file_that_is_no_socket_alone(tool):
    tool.socket.parent.mkdir()
    tool.socket.write_text("precious")
    tool.write({})
    assert tool.start().wait(PATIENCE) == 1
    assert "is not a socket" in tool.complaints.read_text()
    assert tool.socket.read_text() == "precious"


def test_help_tells_the_options():
    told = subprocess.run([TOOL, "--help"], capture_output=True, text=True, timeout=PATIENCE,
                          env={**os.environ, "COLUMNS": "100"})
    assert told.returncode == 0
    for word in ("--socket", "--log", "--fault", "state.json"):
        assert word in told.stdout
