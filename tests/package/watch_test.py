#!/usr/bin/env python3
"""The monitoring of a running wall by Prometheus, and the completions of shells.

watch_test.py TAVREL DOCS COMPLETIONS [SECONDS]: how long Prometheus scrapes the wall.
"""
import datetime
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.parse
import urllib.request

WALL = """
[[channel]]
name = "Cam 1"
source = "clip.mkv"

[[channel]]
name = 'Quoted " and \\ Κάμερα'
source = "udp://127.0.0.1:{dead}"

[layout.evening]
windows = [[0, 0, 640, 360], [642, 0, 640, 360]]

[[output]]
url = "wall.mkv"

[http]
listen = "127.0.0.1:{http}"
"""

PATIENT = {**os.environ, "TAVREL_COMPLETION_TIMEOUT": "60"}


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def get(url):
    with urllib.request.urlopen(url, timeout=10) as answer:
        return answer.read().decode()


def status(url):
    try:
        get(url)
        return 200
    except urllib.error.HTTPError as error:
        return error.code
    except OSError:
        return None


def wait_for(what, condition, limit=60):
    end = time.monotonic() + limit
    while not condition():
        assert time.monotonic() < end, f"waited for {what}"
        time.sleep(0.1)


class Prometheus:
    def __init__(self, folder, target):
        self.address = f"127.0.0.1:{free_port()}"
        config = folder / "prometheus.yml"
        config.write_text("global: {scrape_interval: 1s}\nscrape_configs:\n  - job_name: tavrel\n"
                          f"    static_configs: [{{targets: ['{target}']}}]\n")
        self.process = subprocess.Popen(
            ["prometheus", f"--config.file={config}", f"--storage.tsdb.path={folder}/tsdb", f"--web.listen-address={self.address}"],
            stdout=subprocess.DEVNULL, stderr=open(folder / "prometheus.log", "w"))

    def query(self, expression, at=None):
        parameters = {"query": expression, **({"time": at} if at else {})}
        answer = json.loads(get(f"http://{self.address}/api/v1/query?{urllib.parse.urlencode(parameters)}"))
        assert answer["status"] == "success", answer
        return answer["data"]["result"]


def check_text(text, docs):
    checked = subprocess.run(["promtool", "check", "metrics"], input=text, text=True, capture_output=True)
    assert checked.returncode == 0 and not checked.stderr, checked.stdout + checked.stderr
    assert "udp://" not in text and "clip.mkv" not in text and "wall.mkv" not in text
    assert 'tavrel_channel_state{channel="Quoted \\" and \\\\ Κάμερα",state="live"} 0' in text
    documented = set(re.findall(r"`((?:tavrel|process)_\w+)`", (docs / "service.md").read_text()))
    served = set(re.findall(r"^# TYPE (\S+)", text, re.M))
    assert documented == served, documented ^ served
    for name in ("alerts.yml", "grafana.json"):
        used = set(re.findall(r"\b(?:tavrel|process)_[a-z_]+", (docs / "monitoring" / name).read_text())) - {"tavrel_wall"}
        assert {re.sub("_bucket$", "", one) for one in used} <= served, used - served


def said_by(path):
    lines = [json.loads(line) for line in path.read_text().splitlines() if line.endswith("}")]
    for line in lines:
        line["at"] = datetime.datetime.fromisoformat(line["time"].replace("Z", "+00:00")).timestamp()
    return lines


def compare(prometheus, path, seconds):
    """Prometheus's counts lie between the wall's own counts before and after."""
    samples = [(at, int(value)) for at, value in prometheus.query("tavrel_frames_total[1h]")[0]["values"]]
    lasted = {at: float(value) for at, value in prometheus.query("scrape_duration_seconds[1h]")[0]["values"]}
    until = samples[-1][0] + lasted[samples[-1][0]]
    wait_for("lines after the last sample", lambda: sum(line["at"] >= until for line in said_by(path)) >= 2)
    lines = said_by(path)
    for at, value in samples:
        # A line is counted after the one before it was written, and before it is written itself.
        said = [line["frames"] for line in lines if line["at"] <= at]
        later = [line["frames"] for before, line in zip(lines, lines[1:]) if before["at"] >= at + lasted[at]]
        assert said[-1] <= value <= later[0], (at, value, said[-1], later[0])
    (first, begin), (last, end) = samples[0], samples[-1]
    increase = float(prometheus.query(f"increase(tavrel_frames_total[{seconds}s])", last)[0]["value"][1])

    def frames_at(when):
        before = [line for line in lines if line["at"] <= when][-1]
        after = [line for line in lines if line["at"] > when][0]
        part = (when - before["at"]) / (after["at"] - before["at"])
        return before["frames"] + part * (after["frames"] - before["frames"])

    print(f"{last - first:.1f} s: Prometheus counted {end - begin} frames, --json {frames_at(last) - frames_at(first):.1f}; "
          f"increase() over {seconds} s: {increase:.1f}")


def complete(completions, program, words):
    """The completions of bash and zsh for the last word."""
    script = f"""source {completions}/tavrel.bash; compopt() {{ :; }}
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _tavrel; printf '%s\\n' "${{COMPREPLY[@]}}" """
    in_bash = subprocess.run(["bash", "-c", script, "bash", program, *words], text=True, capture_output=True, check=True,
                             env=PATIENT)
    assert not in_bash.stderr, in_bash.stderr
    script = f"""_files() {{ print FILES }}
_describe() {{ local -a all; all=(${{(P)2}}); print -l -- ${{all%%:*}} }}
compadd() {{ if [[ $1 == -a ]]; then print -l -- ${{(P)2}}; else print -l -- $@; fi }}
words=("$@"); CURRENT=$#; source {completions}/_tavrel"""
    in_zsh = subprocess.run(["zsh", "-f", "-c", script, "zsh", program, *words], text=True, capture_output=True, check=True,
                            env=PATIENT)
    assert not in_zsh.stderr, in_zsh.stderr
    last = words[-1]
    return (in_bash.stdout.splitlines(), [line for line in in_zsh.stdout.splitlines() if line.startswith(last)])


def check_completions(completions, program, wall):
    def offers(*words):
        bash, zsh = complete(completions, program, words)
        plain = {line.replace("\\", "") for line in bash if line}
        assert plain == {line.replace("\\", "") for line in zsh if line}, (words, bash, zsh)
        return plain

    own = ["--socket", str(wall)]
    assert {"run", "render", "ctl", "help"} <= offers("")
    assert "--snapshot-at" in offers("run", "--sn")
    assert {"solo", "solo-off"} == offers("ctl", "solo")
    assert {"Cam 1"} == offers("ctl", *own, "solo", "C")
    assert {"evening", "2x2"} <= offers("ctl", *own, "layout", "")
    assert set() == offers("ctl", "--socket", "/nowhere", "solo", "")


def main():
    program, docs, completions = sys.argv[1], pathlib.Path(sys.argv[2]), sys.argv[3]
    seconds = int(sys.argv[4]) if len(sys.argv) > 4 else 8
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        port = free_port()
        url = f"http://127.0.0.1:{port}"
        subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=320x180:rate=25:duration=4", "-c:v", "mpeg4",
                        folder / "clip.mkv"], check=True)
        (folder / "wall.toml").write_text("[wall]\nwidth = 1284\nheight = 720\n" + WALL.format(http=port, dead=free_port()))
        wall = subprocess.Popen([program, "run", folder / "wall.toml", "--json", "--socket", folder / "wall.sock"],
                                stdout=open(folder / "lines", "w"))
        prometheus = None
        try:
            wait_for("the wall", lambda: status(url + "/readyz") == 200)
            prometheus = Prometheus(folder, f"127.0.0.1:{port}")
            wait_for("a first sample", lambda: status(f"http://{prometheus.address}/-/ready") == 200
                     and prometheus.query("tavrel_frames_total"))
            check_text(get(url + "/metrics"), docs)
            check_completions(completions, program, folder / "wall.sock")
            wait_for("scraping", lambda: len(prometheus.query("tavrel_frames_total[1h]")[0]["values"]) > seconds, 600)
            # Every panel of the dashboard shows something.
            board = json.loads((docs / "monitoring/grafana.json").read_text())
            for panel in board["panels"]:
                for target in panel["targets"]:
                    expression = target["expr"].replace("$instance", f"127.0.0.1:{port}")
                    assert prometheus.query(expression), f"nothing to show for {expression}"
            compare(prometheus, folder / "lines", seconds)
            assert status(url + "/livez") == 200
        finally:
            if prometheus:
                prometheus.process.kill()
            wall.send_signal(signal.SIGCONT)
            wall.send_signal(signal.SIGTERM)
            assert wall.wait(60) == 0


main()
