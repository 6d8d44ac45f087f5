"""What cpack makes: the Debian packages in a bare system, and the source archive without git.

    packages_test.py BUILD_DIR

The bare system is a chroot in memory, in name spaces of its own: its mounts and processes are gone
when the test ends. Only installing from the distribution's mirror uses the network. The system as
debootstrap makes it is kept in BUILD_DIR/packages for the next run.
Exit status: 0 all well, 1 something failed, 77 a part was skipped (the output says which, and why).
"""

import ctypes
import fcntl
import glob
import os
import shutil
import socket
import struct
import subprocess
import sys
import tempfile

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.abspath(sys.argv[1])
WORK = os.path.join(BUILD, "packages")
ROOT = os.path.join(WORK, "root")
CLONE_NEWNET = 0x40000000

COLLECT = r"""
start zmqwriter-collect; collector=$!
until grep -q listening /tmp/zmqwriter-collect.log; do kill -0 $collector; sleep 0.1; done
"""
# Sends the records of one log as an ordinary user. {0} holds further options.
REPLAY = r"""
cd "$(setpriv --reuid nobody --clear-groups mktemp -d)"
printf 'zmq.server = 127.0.0.1:5555\nzmq.public_key = %s\n' "$(cat /root/keys/server.public)" \
  >/tmp/agent.settings
setpriv --reuid nobody --clear-groups zmqwriter replay --settings /tmp/agent.settings {0} \
  /usr/share/doc/zmqwriter-replay/examples/samples/http.log
until [ "$(wc -l </var/lib/zmqwriter/events.json)" -eq 7 ]; do sleep 0.1; done
kill $collector; wait $collector
"""
# Errors end a step, but for those of commands behind "!"; hence absent.
ASSERTIONS = r"""
set -o pipefail; set -x
owners() { stat -c '%U:%G %a' "$1" | grep -x "$2"; }
absent() { if "$@"; then return 1; fi; }
nothing_named() { absent grep . <(find "$@" -name '*zmqwriter*'); }
# Starts what an installed unit starts, as the unit's user.
start() {
  rm -f "/tmp/$1.log"
  command=$(sed -n ':a; /\\$/{N; s/\\\n//; ta}; s/^ExecStart=//p' "/usr/lib/systemd/system/$1.service")
  (set -f; umask 077; exec setpriv --reuid zmqwriter --regid zmqwriter --init-groups $command) \
    >"/tmp/$1.log" 2>&1 &
}
"""

# Promises and the commands that keep them, run by bash -e in the bare system in this order.
STEPS = [
    ("the user and the folders are there, and nothing is started or enabled", r"""
owners /etc/zmqwriter 'root:zmqwriter 750'
owners /var/lib/zmqwriter 'zmqwriter:zmqwriter 750'
getent passwd zmqwriter | grep ':/var/lib/zmqwriter:/usr/sbin/nologin$'
nothing_named /etc/systemd
absent grep -l zmqwriter /proc/[0-9]*/comm"""),
    ("pages, completion and examples are where Debian looks", r"""
dpkg --verify zmqwriter zmqwriter-replay
for name in man/man1/zmqwriter-collect.1.gz bash-completion/completions/zmqwriter \
    zsh/vendor-completions/_zmqwriter fish/vendor_completions.d/zmqwriter.fish \
    doc/zmqwriter/{copyright,changelog.gz,changelog.Debian.gz,README.md,docs/operations.md}; do
  [ -s /usr/share/$name ]
done
for name in $EXAMPLES; do [ -s /usr/share/doc/zmqwriter/examples/$name ]; done"""),
    ("the collector runs as its unit says and writes what an agent sends", r"""
umask 022
zmqwriter keygen --dir /root/keys
install -m 0600 -o zmqwriter -g zmqwriter /root/keys/server.secret /etc/zmqwriter/server.secret
""" + COLLECT + r"""
exec 3<>/dev/tcp/127.0.0.1/9155
printf 'GET /healthz HTTP/1.0\r\n\r\n' >&3
grep ' 200 OK' <&3""" + REPLAY.format("") + r"""
owners /var/lib/zmqwriter/events.json 'zmqwriter:zmqwriter 600'"""),
    ("check finds nothing wrong with an agent of the trial plug-in", COLLECT + r"""
cd "$(mktemp -d)"
mkdir orvik-spool
zmqwriter check --plugin /usr/lib/zmqwriter/plugin-sandbox --connect \
  --settings /tmp/agent.settings | grep 'All well: 0 errors, 0 warnings'
kill $collector; wait $collector"""),
    ("logs are followed as the unit says", COLLECT + r"""
install -m 0640 -o root -g zmqwriter /tmp/agent.settings /etc/zmqwriter/agent.settings
install -d -m 0700 -o zmqwriter -g zmqwriter /var/lib/zmqwriter-follow
install -D -t /usr/local/bro/logs/current /usr/share/doc/zmqwriter-replay/examples/samples/http.log
cd /var/lib/zmqwriter-follow
start zmqwriter-follow; follow=$!
until [ "$(wc -l </var/lib/zmqwriter/events.json)" -eq 7 ]; do kill -0 $follow; sleep 0.1; done
kill $follow; wait $follow
owners /var/lib/zmqwriter-follow/state 'zmqwriter:zmqwriter 600'
kill $collector; wait $collector"""),
    ("an upgrade keeps keys, events and what the administrator has changed", r"""
chmod 0700 /etc/zmqwriter
find /etc/zmqwriter /var/lib/zmqwriter -type f | sort | xargs sha256sum >/tmp/before
dpkg -i /packages/2/*.deb
[ "$(dpkg-query -W -f '${Version} ' zmqwriter zmqwriter-replay)" = "$VERSION-2 $VERSION-2 " ]
find /etc/zmqwriter /var/lib/zmqwriter -type f | sort | xargs sha256sum | diff /tmp/before -
owners /etc/zmqwriter 'root:zmqwriter 700'
chmod 0750 /etc/zmqwriter""" + COLLECT +
     REPLAY.format("--plugin /usr/lib/zmqwriter/plugin-sandbox")),
    ("removing takes the program and leaves keys and events", r"""
apt-get -y remove zmqwriter
nothing_named /usr
[ -s /etc/zmqwriter/server.secret ]
[ "$(cat /var/lib/zmqwriter/events.json* | wc -l)" -ge 14 ]"""),
    ("purging takes the configuration and leaves the events with their owner", r"""
apt-get -y purge zmqwriter zmqwriter-replay |
  grep 'not empty: /var/lib/zmqwriter /var/lib/zmqwriter-follow$'
absent test -e /etc/zmqwriter
owners /var/lib/zmqwriter/events.json 'zmqwriter:zmqwriter 600'"""),
    ("the scripts of the packages stop services before they go, and start none", r"""
mkdir -p /run/systemd/system
printf '#!/bin/sh\necho "$*" >>/tmp/systemctl.log\n' >/usr/bin/systemctl
chmod +x /usr/bin/systemctl
for release in 1 2; do dpkg -i /packages/$release/zmqwriter_*.deb; done
echo removing >>/tmp/systemctl.log
apt-get -y remove zmqwriter
rm -r /run/systemd /usr/bin/systemctl
diff <(uniq /tmp/systemctl.log) - <<END
--system daemon-reload
removing
stop zmqwriter-*.service
--system daemon-reload
END"""),
    ("purging after the events are gone leaves no trace", r"""
dpkg -i /packages/1/zmqwriter_*.deb
owners /etc/zmqwriter 'root:zmqwriter 750'
mkdir -p /etc/systemd/system/multi-user.target.wants
ln -s /usr/lib/systemd/system/zmqwriter-collect.service /etc/systemd/system/multi-user.target.wants
rm -r /var/lib/zmqwriter/* /var/lib/zmqwriter-follow/*
apt-get -y purge zmqwriter
absent getent passwd zmqwriter
absent getent group zmqwriter
nothing_named /boot /etc /home /opt /root /run /srv /usr /var"""),
]


class Skipped(Exception):
    pass


def run(*command, **options):
    """Runs a command and gives what it prints; an error shows that."""
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            stdin=subprocess.DEVNULL, timeout=1800, **options)
    if result.returncode:
        raise AssertionError("%s, with exit status %d:\n%s" % (
            " ".join(command[:3]), result.returncode, result.stdout))
    return result.stdout


def put(name, text):
    with open(ROOT + name, "w") as file:
        file.write(text)


def passed(promise):
    print("ok    " + promise, flush=True)


def try_source_archive():
    folder = tempfile.mkdtemp(prefix="zmqwriter-test-")
    try:
        run("cpack", "--config", "CPackSourceConfig.cmake", "-B", folder, cwd=BUILD)
        run("tar", "-xf", glob.glob(folder + "/*.tar.gz")[0], "-C", folder)
        sources = glob.glob(folder + "/zmqwriter-*/")[0]
        found = {os.path.relpath(os.path.join(place, name), sources)
                 for place, _, names in os.walk(sources) for name in names}
        tracked = set(run("git", "-C", SOURCE, "ls-files", "-z").split("\0")) - {""}
        assert found == tracked, "other files than git tracks: %s" % sorted(found ^ tracked)
        passed("the source archive holds the files that git tracks and no others")

        os.mkdir(folder + "/bin")
        with open(folder + "/bin/git", "w") as git:
            git.write("#!/bin/sh\ntouch %s/used\nexit 127\n" % folder)
        os.chmod(folder + "/bin/git", 0o755)
        hidden = dict(os.environ, PATH=folder + "/bin:" + os.environ["PATH"], CCACHE_BASEDIR=folder)
        run("cmake", "-S", sources, "-B", folder + "/build", "-G", "Ninja",
            "-DCMAKE_BUILD_TYPE=Release", "-DZMQWRITER_BUILD_TESTS=OFF",
            "-DZMQWRITER_BUILD_BENCH=OFF", env=hidden)
        run("cmake", "--build", folder + "/build", env=hidden)
        program = folder + "/build/bin/zmqwriter"
        assert run(program, "--version") == run(BUILD + "/bin/zmqwriter", "--version")
        assert run(program, "replay", "-N").startswith("Dravenholt::ZMQWriter")
        assert not os.path.exists(folder + "/used"), "the build runs git"
        passed("the source archive builds without git")
    finally:
        shutil.rmtree(folder)


def make_packages():
    for release in ("1", "2"):
        folder = os.path.join(WORK, release)
        shutil.rmtree(folder, ignore_errors=True)
        run("cpack", "-B", folder, "-D", "CPACK_DEBIAN_PACKAGE_RELEASE=" + release, cwd=BUILD)
        shutil.rmtree(folder + "/_CPack_Packages")
        names = sorted(name.split("_")[0] for name in os.listdir(folder))
        assert names == ["zmqwriter", "zmqwriter-replay"], names


def try_or_skip(why, *command, **options):
    try:
        return run(*command, **options)
    except (AssertionError, OSError, subprocess.TimeoutExpired) as error:
        raise Skipped("%s: %s" % (why, str(error).strip().splitlines()[-1]))


def make_bare_system():
    """A bare system of this distribution in ROOT, with the packages' dependencies at hand."""
    release = dict(line.strip().replace('"', "").split("=", 1)
                   for line in open("/etc/os-release") if "=" in line)
    codename = release["VERSION_CODENAME"]
    sources = [line.split() for line in run(
        "apt-get", "indextargets", "--format", "$(REPO_URI) $(RELEASE) $(COMPONENT) $(ORIGIN)",
        "Created-By: Packages").splitlines()]
    sources = [words[:3] for words in sources if words[3:] == [release["ID"].capitalize()]]
    if not sources:
        raise Skipped("apt knows no source of this distribution (apt-get update)")
    run("mount", "-t", "tmpfs", "-o", "mode=755", "zmqwriter-test", ROOT)
    cache = os.path.join(WORK, "bare-%s.tar" % codename)
    if not os.path.exists(cache):
        proxy = run("sh", "-c", 'eval "$(apt-config shell p Acquire::http::Proxy)"; echo "$p"')
        mirror, _, component = next(words for words in sources if words[1] == codename)
        try_or_skip("no bare system (a network is needed)",
                    "debootstrap", "--variant=minbase", "--components=" + component, codename, ROOT,
                    mirror, env=dict(os.environ, **({"http_proxy": proxy.strip()} if proxy.strip() else {})))
        run("tar", "-C", ROOT, "-cf", cache + ".part", ".")
        os.rename(cache + ".part", cache)
    else:
        run("tar", "-C", ROOT, "-xf", cache)
    shutil.copyfile("/etc/resolv.conf", ROOT + "/etc/resolv.conf")
    put("/etc/apt/sources.list", "".join("deb %s %s %s\n" % tuple(words) for words in sources))
    put("/etc/apt/apt.conf.d/host", run("apt-config", "dump", "Acquire"))
    run("mount", "-t", "proc", "proc", ROOT + "/proc")
    shutil.copytree(WORK, ROOT + "/packages", ignore=lambda folder, names: [
        name for name in names if folder == WORK and name not in "12"])
    try_or_skip("no network", "chroot", ROOT, "apt-get", "update", "-o", "APT::Update::Error-Mode=any")


def leave_the_network():
    """From here on there is a loopback interface of our own, and every port is free."""
    if ctypes.CDLL(None, use_errno=True).unshare(CLONE_NEWNET):
        raise OSError(ctypes.get_errno(), "unshare")
    with socket.socket() as any_socket:
        fcntl.ioctl(any_socket, 0x8914, struct.pack("16sh14x", b"lo", 1))  # SIOCSIFFLAGS, IFF_UP


def verify_units():
    if not shutil.which("systemd-analyze"):
        raise Skipped("the units were not verified: systemd-analyze is not here")
    os.makedirs(ROOT + "/run/systemd/system")
    for target in ("sysinit", "basic", "network-online", "shutdown"):
        put("/run/systemd/system/%s.target" % target, "[Unit]\nDefaultDependencies=no\n")
    units = [os.path.basename(unit)
             for unit in glob.glob(ROOT + "/usr/lib/systemd/system/zmqwriter-*.service")]
    assert units
    said = run("systemd-analyze", "verify", "--root=" + ROOT, *units)
    assert not said, said
    shutil.rmtree(ROOT + "/run/systemd")
    passed("systemd finds nothing wrong with " + ", ".join(units))


def try_packages():
    make_bare_system()
    environment = {
        "PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C.UTF-8",
        "DEBIAN_FRONTEND": "noninteractive",
        "VERSION": open(SOURCE + "/VERSION").readline().strip(),
        "EXAMPLES": " ".join(name for name in os.listdir(SOURCE + "/setup/examples")
                             if not name.endswith((".service", ".plist")))}

    def inside(promise, commands):
        try:
            run("chroot", ROOT, "bash", "-ec", ASSERTIONS + commands, env=environment)
        except AssertionError as error:
            raise AssertionError("%s\n%s" % (promise, error))
        passed(promise)

    inside("apt installs the packages with what they depend on",
           "apt-get -y --no-install-recommends install /packages/1/*.deb")
    leave_the_network()
    try:
        verify_units()
    except Skipped as skipped:
        print("      %s" % skipped)
    for promise, commands in STEPS:
        inside(promise, commands)


def try_packages_as_root():
    missing = [tool for tool in ("dpkg-shlibdeps", "file", "debootstrap", "unshare", "apt-get")
               if not shutil.which(tool, path=os.environ["PATH"] + ":/usr/sbin")]
    if missing:
        raise Skipped("needs %s (setup/packages packages)" % ", ".join(missing))
    make_packages()
    passed("cpack makes two packages")
    os.makedirs(ROOT, exist_ok=True)
    as_root = [] if os.geteuid() == 0 else ["sudo", "-n"]
    alone = as_root + ["unshare", "--mount", "--pid", "--fork", "--kill-child"]
    try_or_skip("needs root, and name spaces", *alone, "true")
    return subprocess.run(alone + [sys.executable, "-B", __file__, BUILD, "inside"],
                          timeout=3600).returncode


def main():
    if sys.argv[2:] == ["inside"]:
        parts = [try_packages]
    else:
        parts = [try_source_archive, try_packages_as_root]
    ends = []
    for part in parts:
        try:
            ends.append(part() or 0)
        except Skipped as skipped:
            print("skipped: %s" % skipped)
            ends.append(77)
        except (AssertionError, subprocess.TimeoutExpired) as error:
            print("FAILED %s" % error)
            ends.append(1)
    return 1 if 1 in ends else max(ends)


sys.exit(main())
