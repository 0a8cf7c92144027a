"""What all sandboxes of one test process share: the mount name space, the root's lower layer, the compiled tools."""

import ctypes
import hashlib
import itertools
import os
import shutil
import stat
import subprocess
from pathlib import Path

HERE = Path(__file__).resolve().parent
TREE = HERE.parents[1]

# Everything that the agent may look up on PATH has a stand-in, so that nothing of the machine answers by accident.
REAL_TOOLS = "useradd usermod userdel chown chmod runuser tar du head tee mkdir cat".split()
OTHER_TOOLS = (
    "pkill systemctl systemd-run journalctl apache2ctl a2ensite a2dissite psql pg_dump pg_restore findmnt quotaon"
    " quotaoff quotacheck setquota repquota quota modprobe mount umount ufw sshd fail2ban-client dpkg-query dpkg apt"
    " apt-get unattended-upgrade uname php-fpm8.2"
).split()

PASSWD = """\
root:x:0:0:root:/root:/bin/bash
daemon:x:1:1:daemon:/usr/sbin:/usr/sbin/nologin
mail:x:8:8:mail:/var/mail:/usr/sbin/nologin
www-data:x:33:33:www-data:/var/www:/usr/sbin/nologin
backup:x:34:34:backup:/var/backups:/usr/sbin/nologin
postgres:x:115:115:PostgreSQL administrator:/var/lib/postgresql:/bin/bash
corv-web:x:990:990:Corvane panel:/nonexistent:/usr/sbin/nologin
nobody:x:65534:65534:nobody:/nonexistent:/usr/sbin/nologin
"""
GROUP = """\
root:x:0:
daemon:x:1:
tty:x:5:
mail:x:8:
www-data:x:33:
backup:x:34:
shadow:x:42:
utmp:x:43:
users:x:100:
postgres:x:115:
corv-web:x:990:
nogroup:x:65534:
"""
ETC = {
    "passwd": PASSWD,
    "group": GROUP,
    "shadow": "".join(line.split(":")[0] + ":*:19000:0:99999:7:::\n" for line in PASSWD.splitlines()),
    "gshadow": "".join(line.split(":")[0] + ":*::\n" for line in GROUP.splitlines()),
    "nsswitch.conf": "passwd: files\ngroup: files\nshadow: files\ngshadow: files\nhosts: files\n",
    "hostname": "sandbox\n",
    "hosts": "127.0.0.1 localhost sandbox\n",
    "os-release": 'PRETTY_NAME="Debian GNU/Linux 12 (bookworm)"\nNAME="Debian GNU/Linux"\nVERSION_ID="12"\nID=debian\n',
    "debian_version": "12.0\n",
    "machine-id": "0123456789abcdef0123456789abcdef\n",
    "timezone": "Etc/UTC\n",
    "shells": "/bin/sh\n/bin/bash\n",
    "fstab": "UUID=0a3407de-014b-458b-b5c1-848e92a327a3 / ext4 errors=remount-ro 0 1\n",
    "login.defs": "UID_MIN 1000\nUID_MAX 60000\nGID_MIN 1000\nGID_MAX 60000\nUMASK 022\nUSERGROUPS_ENAB yes\n"
    "ENCRYPT_METHOD YESCRYPT\nMAIL_DIR /var/mail\nENV_SUPATH PATH=/usr/sbin:/usr/bin\nENV_PATH PATH=/usr/bin\n",
    "default/useradd": "SHELL=/bin/sh\n",
    "skel/.profile": "# skeleton\n",
    # Nothing of the machine's login set-up: no session manager, no limits.
    "pam.d/runuser": "auth sufficient pam_permit.so\naccount sufficient pam_permit.so\nsession required pam_permit.so\n",
}
FOLDERS = {
    "dev": 0o755,
    "etc/apache2/conf-available": 0o755,
    "etc/apache2/conf-enabled": 0o755,
    "etc/apache2/sites-available": 0o755,
    "etc/apache2/sites-enabled": 0o755,
    "etc/apt/apt.conf.d": 0o755,
    "etc/corvane": 0o755,
    "etc/fail2ban/filter.d": 0o755,
    "etc/fail2ban/jail.d": 0o755,
    "etc/php/8.2/cli": 0o755,
    "etc/php/8.2/fpm/pool.d": 0o755,
    "home": 0o755,
    "mnt": 0o755,
    "opt": 0o755,
    "proc": 0o755,
    "root": 0o700,
    "run": 0o755,
    "srv": 0o755,
    "standins/bin": 0o755,
    "standins/state": 0o777,
    "sys": 0o755,
    "tmp": 0o1777,
    "usr": 0o755,
    "var/backups": 0o755,
    "var/cache": 0o755,
    "var/lib/corvane/transfer": 0o700,
    "var/lib/postgresql": 0o755,
    "var/log/apache2": 0o755,
    "var/mail": 0o755,
    "var/spool": 0o755,
    "var/tmp": 0o1777,
    "var/www": 0o755,
}
DEVICES = {"null": (1, 3), "zero": (1, 5), "full": (1, 7), "random": (1, 8), "urandom": (1, 9), "tty": (5, 0)}

# The sandbox's folders that are file systems of their own, as they are on many servers: a rename between them fails.
FILE_SYSTEMS = ("run", "tmp", "home", "var/log", "var/backups")

_libc = ctypes.CDLL(None, use_errno=True)
MS_NOSUID, MS_REC, MS_PRIVATE, MS_BIND = 2, 0x4000, 0x40000, 0x1000
_MNT_DETACH = 2
_CLONE_NEWNS = 0x20000


def _check(result, what):
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{what}: {os.strerror(number)}")


def mount(source, target, kind=None, flags=0, options=None):
    """Calls mount(2)."""
    encoded = [None if text is None else os.fsencode(text) for text in (source, target, kind)]
    data = None if options is None else os.fsencode(options)
    _check(_libc.mount(*encoded, ctypes.c_ulong(flags), data), f"mount {target}")


def unmount(target):
    """Detaches the mount at target with everything mounted below it."""
    _check(_libc.umount2(os.fsencode(target), _MNT_DETACH), f"umount {target}")


def agent_executable():
    """The executable under test: CORV_AGENT, or the tree's own build."""
    return Path(os.environ.get("CORV_AGENT") or TREE / "build/bin/corv-agent").resolve()


def short_agent_executable():
    """The same agent built with short time-outs: CORV_AGENT_SHORT, or corv-agent-short beside the executable."""
    given = os.environ.get("CORV_AGENT_SHORT")
    return Path(given).resolve() if given else agent_executable().with_name("corv-agent-short")


def build_tool(name):
    """Compiles name.c, once for each version of its source, and returns the program's path."""
    source = HERE / f"{name}.c"
    digest = hashlib.sha256(source.read_bytes()).hexdigest()[:16]
    folder = TREE / "build" / "protocol-tools"
    program = folder / f"{name}-{digest}"
    if not program.exists():
        folder.mkdir(parents=True, exist_ok=True)
        fresh = folder / f"{name}-{digest}.{os.getpid()}"
        subprocess.run(
            [os.environ.get("CC", "cc"), "-std=gnu17", "-O1", "-static", "-Wall", "-Wextra", "-Werror", "-o", fresh, source],
            check=True,
        )
        fresh.rename(program)
    return program


class Ground:
    """What all sandboxes of one test process share: a mount name space that ends with the process, and the lower layer."""

    def __init__(self):
        if os.getuid() != 0:
            raise SystemExit("the protocol floor builds roots and name spaces: run it as root")
        # Made in a name space of our own, every mount goes away with the process, whatever way it ends.
        _check(_libc.unshare(_CLONE_NEWNS), "unshare")
        mount(None, "/", None, MS_REC | MS_PRIVATE)
        # Covering a folder that every system has leaves none behind, and others of us can do the same.
        used = [TREE, agent_executable()]
        self.base = next(Path(top) for top in ("/srv", "/mnt", "/media") if not any(p.is_relative_to(top) for p in used))
        self.numbers = itertools.count(1)
        mount("tmpfs", self.base, "tmpfs", 0, "mode=755")
        self.launcher = build_tool("launch")
        self.layer = self.base / "layer"
        self.agents = {}
        self._lay()

    def _lay(self):
        layer = self.layer
        layer.mkdir()
        for folder, mode in FOLDERS.items():
            (layer / folder).mkdir(parents=True, exist_ok=True)
            (layer / folder).chmod(mode)
        for link in ("bin", "sbin", "lib", "lib32", "lib64", "libx32"):
            if Path("/", link).is_symlink():
                (layer / link).symlink_to(os.readlink(Path("/", link)))
        (layer / "var/run").symlink_to("/run")
        (layer / "var/lock").symlink_to("/run/lock")
        for name, text in ETC.items():
            path = layer / "etc" / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        (layer / "etc/localtime").symlink_to("/usr/share/zoneinfo/Etc/UTC")
        for name in ("shadow", "gshadow"):
            (layer / "etc" / name).chmod(0o640)
            os.chown(layer / "etc" / name, 0, 42)
        # The loader finds libraries outside the standard folders through its cache only.
        if Path("/etc/ld.so.cache").exists():
            shutil.copy("/etc/ld.so.cache", layer / "etc/ld.so.cache")
        for name, (major, minor) in DEVICES.items():
            os.mknod(layer / "dev" / name, stat.S_IFCHR, os.makedev(major, minor))
            (layer / "dev" / name).chmod(0o666)
        (layer / "dev/fd").symlink_to("/proc/self/fd")
        for number, name in enumerate(("stdin", "stdout", "stderr")):
            (layer / "dev" / name).symlink_to(f"/proc/self/fd/{number}")
        os.chown(layer / "var/lib/corvane/transfer", 990, 990)
        os.chown(layer / "var/lib/postgresql", 115, 115)

        shutil.copy(HERE / "valgrind.supp", layer / "standins")
        first = layer / "standins/standin"
        shutil.copy(build_tool("standin"), first)
        for name in REAL_TOOLS + OTHER_TOOLS:
            os.link(first, layer / "standins/bin" / name)
        for name in ("lock", "record", "rules"):
            (layer / "standins/state" / name).touch()
            (layer / "standins/state" / name).chmod(0o666)

    def agent(self, executable):
        """The executable's copy in the layer: the tree itself cannot be seen from inside, and accounts may run it."""
        if executable not in self.agents:
            if not executable.exists():
                raise AssertionError(f"{executable} is missing: build it, or name another with CORV_AGENT")
            copy = self.base / f"agent{len(self.agents)}"
            shutil.copy(executable, copy)
            copy.chmod(0o755)
            self.agents[executable] = copy
        return self.agents[executable]

    def close(self):
        unmount(self.base)
