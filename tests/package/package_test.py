#!/usr/bin/env python3
"""The Debian package: made of a build, looked at by lintian, installed in a clean root, used there, upgraded and purged.

package_test.py BUILD [ROOT]: with the latter in a root that `debootstrap --variant=minbase bookworm ROOT` has made, in which apt
installs what the package needs; the root is changed.
"""
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

import clean_root

WALL = """
[[channel]]
name = "Gone"
source = "udp://127.0.0.1:{port}"

[http]
listen = "127.0.0.1:{http}"

[[output]]
url = "/var/lib/tavrel/studio/wall.mkv"
"""
# Files that the system itself writes or owns.
VOLATILE = re.compile(r"^(proc|dev|sys|tmp|run|var/lib/dpkg|var/lib/apt|var/log|var/cache)(/|$)|^etc/(passwd|group|shadow|gshadow|subuid|subgid)-$|^etc/(\.pwd\.lock|ld\.so\.cache)$")


def run(*command, **more):
    done = subprocess.run([str(word) for word in command], text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **more)
    assert done.returncode == 0, f"{command} ended with {done.returncode}:\n{done.stdout}"
    return done.stdout


def make_packages(build, folder):
    """Two versions with the same content."""
    run("cpack", "--config", build / "CPackConfig.cmake", "-G", "DEB", "-B", folder,
        "-D", "CPACK_DEBIAN_COMPRESSION_TYPE=gzip")
    first, = folder.glob("tavrel_*.deb")
    content = folder / "content"
    run("dpkg-deb", "-R", first, content)
    control = content / "DEBIAN/control"
    control.write_text(re.sub(r"^Version: .*", "Version: 99.0", control.read_text(), flags=re.M))
    second = folder / "next.deb"
    run("dpkg-deb", "--root-owner-group", "-Znone", "-b", content, second)
    return first, second, content


def check_package(package, content):
    tags = subprocess.run(["lintian", "--allow-root", "--fail-on", "none", package], text=True, capture_output=True).stdout
    print(tags)
    assert not re.search(r"^E:", tags, re.M), tags
    unit = content / "usr/lib/systemd/system/tavrel@.service"
    assert "RestartPreventExitStatus=64 78\n" in unit.read_text()
    exposure = run("systemd-analyze", "security", "--offline=true", unit).strip().splitlines()[-1]
    assert float(re.search(r": (\d+\.\d)", exposure)[1]) < 3, exposure
    # The unit's program must exist here; its manual is tested elsewhere.
    with tempfile.TemporaryDirectory() as folder:
        copy = pathlib.Path(folder) / unit.name
        copy.write_text(unit.read_text().replace("/usr/bin/tavrel", str(content / "usr/bin/tavrel")))
        said = run("systemd-analyze", "verify", "--man=no", copy)
    assert "tavrel" not in said, said


class Root:
    def __init__(self, folder):
        self.folder = folder
        for name in ("proc", "dev"):
            run("mount", "--rbind", f"/{name}", folder / name)

    def run(self, *command, **more):
        return run("chroot", self.folder, "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", *command, **more)

    def files(self):
        found = set()
        for path, folders, files in os.walk(self.folder):
            below = os.path.relpath(path, self.folder)
            folders[:] = [one for one in folders if not VOLATILE.match(os.path.normpath(f"{below}/{one}"))]
            found |= {os.path.normpath(f"{below}/{one}") for one in folders + files}
        return {one for one in found if not VOLATILE.match(one)} | {
            f"{name} {line}" for name in ("passwd", "group") for line in (self.folder / "etc" / name).read_text().splitlines()}


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def use(root):
    """Without a home, without fonts but those of its dependencies."""
    made = json.loads(root.run("tavrel", "demo", "--seconds", "1", "--width", "640", "--height", "360", "--channels", "4",
                               "-o", "/tmp/demo.mkv", "--snapshot", "/tmp/demo.png", "--json"))
    assert made["frames"] == 25 and (root.folder / "tmp/demo.png").stat().st_size > 10_000, made
    root.run("tavrel", "check", "/etc/tavrel/example.toml")
    # A program in another folder finds the library in the registry.
    shutil.copy2(root.folder / "usr/bin/tavrel", root.folder / "tmp/tavrel")
    assert "Composition" in root.run("/tmp/tavrel", "pins")
    # A wall, started as by the unit.
    port, wall = free_port(), root.folder / "etc/tavrel/studio.toml"
    wall.write_text(WALL.format(port=free_port(), http=port))
    for folder in ("run/tavrel", "var/lib/tavrel/studio"):
        (root.folder / folder).mkdir(parents=True)
        root.run("chown", "tavrel:tavrel", f"/{folder}")
    service = subprocess.Popen(["chroot", root.folder, "setpriv", "--reuid=tavrel", "--regid=tavrel", "--clear-groups",
                                "--no-new-privs", "env", "-i", "/usr/bin/tavrel", "run", "/etc/tavrel/studio.toml",
                                "--socket", "/run/tavrel/studio.sock"], stdout=subprocess.DEVNULL)
    try:
        end = time.monotonic() + 30
        while True:
            try:
                with urllib.request.urlopen(f"http://127.0.0.1:{port}/readyz", timeout=5) as ready:
                    assert ready.status == 200
                    break
            except OSError as error:  # a dead source is no reason to wait for long
                assert time.monotonic() < end and service.poll() is None, f"the wall is not ready: {error}"
                time.sleep(0.1)
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/", timeout=60) as page:
            assert b"<!doctype html" in page.read(100).lower()
        assert "nothing has changed" in root.run("tavrel", "ctl", "--socket", "/run/tavrel/studio.sock", "reload")
        assert "Gone" in root.run("tavrel", "ctl", "list")  # finds the only wall that runs
        root.run("tavrel", "ctl", "save-layout", "evening")
        assert (root.folder / "etc/tavrel/studio.layouts.toml").exists()
    finally:
        service.send_signal(signal.SIGTERM)
        assert service.wait(30) == 0
    assert (root.folder / "var/lib/tavrel/studio/wall.mkv").stat().st_size > 0


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    if "PACKAGE_TEST_FOLDER" not in os.environ:
        # The mounts disappear with the last process; then the folder is removed.
        with tempfile.TemporaryDirectory(dir=build) as folder:
            done = subprocess.run(["unshare", "--mount", "--pid", "--fork", "--kill-child", sys.executable, "-B", *sys.argv],
                                  env={**os.environ, "PACKAGE_TEST_FOLDER": folder})
            sys.exit(done.returncode)
    folder = pathlib.Path(os.environ["PACKAGE_TEST_FOLDER"])
    began = time.monotonic()

    def step(what):
        print(f"{time.monotonic() - began:6.1f} s  {what}", flush=True)

    first, second, content = make_packages(build, folder)
    step("made")
    check_package(first, content)
    step("checked")
    depends = re.search(r"^Depends: (.*)", (content / "DEBIAN/control").read_text(), re.M)[1]
    if len(sys.argv) > 2:
        root = Root(pathlib.Path(sys.argv[2]).resolve())
    else:
        clean_root.make(folder / "root", depends)
        root = Root(folder / "root")
    for package in (first, second):
        shutil.copy2(package, root.folder / "tmp")
    if len(sys.argv) > 2:
        root.run("apt-get", "update", "-qq")
        root.run("env", "DEBIAN_FRONTEND=noninteractive", "apt-get", "install", "-y", "-qq", "--no-install-recommends",
                 f"/tmp/{first.name}")
        root.run("dpkg", "--purge", "tavrel")
    before = root.files()
    step("has a clean root")
    root.run("dpkg", "--force-unsafe-io", "-i", f"/tmp/{first.name}")
    step("installed")
    use(root)
    step("used")
    example = root.folder / "etc/tavrel/example.toml"
    example.write_text(example.read_text() + "# ours\n")
    root.run("dpkg", "--force-unsafe-io", "-i", f"/tmp/{second.name}")
    assert "99.0" in root.run("dpkg-query", "-W", "tavrel") and example.read_text().endswith("# ours\n")
    root.run("dpkg", "-r", "tavrel")
    assert example.exists() and (root.folder / "etc/tavrel/studio.toml").exists()
    root.run("dpkg", "--purge", "tavrel")
    step("upgraded, removed and purged")
    left = root.files() ^ before
    assert not left, f"purging leaves a difference: {sorted(left)}"


main()
