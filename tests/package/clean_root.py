"""A root file system that holds nothing but some Debian packages and what they depend on.

The packages are those of this machine: their files are taken as dpkg lists them, and dpkg's own records with them, so that it
takes seconds and no network. `debootstrap` makes the same from the archive.
"""
import os
import pathlib
import re
import shutil
import subprocess

DPKG = pathlib.Path("/var/lib/dpkg")
# Thousands of files that no program reads.
UNUSED = re.compile("/usr/share/(doc|man|info|locale|lintian|bug)/.")


def stanzas():
    """Name of each installed package -> its fields."""
    packages = {}
    for text in (DPKG / "status").read_text().split("\n\n"):
        fields = dict(re.findall(r"^([A-Za-z-]+): ?(.*(?:\n .*)*)", text, re.M))
        if fields.get("Status", "").endswith(" installed"):
            packages[fields["Package"]] = {**fields, "stanza": text}
    return packages


def closure(packages, depends):
    """All packages that the essential ones and those of the field need, themselves included."""
    provided = {}
    for name, fields in packages.items():
        for one in re.split(r",\s*", fields.get("Provides", "")):
            provided.setdefault(one.split(" ")[0], name)
    needed = set()
    waiting = [name for name, fields in packages.items()
               if fields.get("Essential") == "yes" or fields.get("Priority") == "required"]

    def add(field):
        for alternatives in filter(None, re.split(r",\s*", field)):
            names = [re.split(r"[ (:]", one.strip())[0] for one in alternatives.split("|")]
            found = [name for name in (one if one in packages else provided.get(one) for one in names) if name]
            assert found, f"this machine has none of: {alternatives}"
            waiting.append(found[0])

    add(depends)
    while waiting:
        name = waiting.pop()
        if name not in needed:
            needed.add(name)
            for field in ("Pre-Depends", "Depends"):
                add(packages[name].get(field, ""))
    return needed


def take(source, target, link):
    target.parent.mkdir(parents=True, exist_ok=True)
    if source.is_symlink():
        if not target.is_symlink():
            target.symlink_to(os.readlink(source))
    elif source.is_dir():
        target.mkdir(exist_ok=True)
        shutil.copystat(source, target)
    elif source.is_file() and not target.exists():
        if link:
            os.link(source, target)
        else:
            shutil.copy2(source, target)


def make(root, depends):
    """Fills the folder; returns the names of the packages in it."""
    packages = stanzas()
    names = closure(packages, depends)
    root.mkdir(parents=True)
    root.chmod(0o755)
    for folder in ("bin", "sbin", "lib", "lib32", "lib64", "libx32"):
        if os.path.islink(f"/{folder}"):
            (root / f"usr/{folder}").mkdir(parents=True, exist_ok=True)
            (root / folder).symlink_to(f"usr/{folder}")
    # Files that programs write in place are copies.
    link = os.stat("/usr").st_dev == os.stat(root).st_dev
    info = root / "var/lib/dpkg/info"
    info.mkdir(parents=True)
    for name in names:
        prefix = f"{name}:{packages[name]['Architecture']}" if packages[name].get("Multi-Arch") == "same" else name
        for path in (DPKG / "info").glob(f"{prefix}.*"):
            if path.stem == prefix:
                shutil.copy2(path, info)
        for line in (info / f"{prefix}.list").read_text().splitlines():
            if line != "/." and not UNUSED.match(line) and os.path.lexists(line):
                take(pathlib.Path(line), root / line[1:], link and line.startswith(("/usr/", "/lib", "/bin/", "/sbin/")))
    (root / "var/lib/dpkg/status").write_text("".join(packages[name]["stanza"].strip("\n") + "\n\n" for name in sorted(names)))
    (root / "var/lib/dpkg/available").touch()
    (root / "var/lib/dpkg/info/format").write_text("1\n")
    triggers = root / "var/lib/dpkg/triggers"
    triggers.mkdir()
    for name in ("File", "Unincorp"):
        lines = (DPKG / "triggers" / name).read_text().splitlines() if (DPKG / "triggers" / name).exists() else []
        kept = [line for line in lines if re.split(r"[:/]", line.split()[-1])[0] in names]
        (triggers / name).write_text("".join(line + "\n" for line in kept))
    # Files that their maintainer scripts would make.
    for name in ("passwd", "group"):
        shutil.copy2(f"/usr/share/base-passwd/{name}.master", root / "etc" / name)
    for name, mode in (("shadow", 0o640), ("gshadow", 0o640)):
        (root / "etc" / name).touch(mode)
    for path in pathlib.Path("/etc/alternatives").iterdir():
        if path.is_symlink() and os.path.lexists(root / os.readlink(path)[1:]):
            take(path, root / str(path)[1:], False)
    for record in (DPKG / "alternatives").iterdir():
        _, target, *_ = record.read_text().splitlines()
        if os.path.lexists(root / "etc/alternatives" / record.name) and os.path.lexists(target):
            take(pathlib.Path(target), root / target[1:], False)
    for name in ("tmp", "run", "proc", "dev", "sys", "root"):
        (root / name).mkdir(exist_ok=True)
    (root / "tmp").chmod(0o1777)
    subprocess.run(["ldconfig", "-r", root], check=True)
    return names
