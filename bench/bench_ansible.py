"""What a playbook costs whoever runs it on many servers: the collection's facts of 1,000 hosts, over an ssh that is a stand-in.

Each host takes the time of a login over a network, or of that and a module on a server that is slow, reads the module to its end and
answers as one with eight services does, without running it: what Python takes on a server is that server's. So what is counted is Ansible's own: its time, how many connections it has
open at once, the memory of its processes. Usage: bench_ansible.py [HOSTS]"""

import json
import pathlib
import shutil
import subprocess
import sys
import tempfile

from inventory import LOGIN_MS, enter_mounts, make_collection, make_ssh, measured, most_at_once, write_hosts

FORKS = [10, 50, 100]
ANSWERS_MS = [LOGIN_MS, 1000]
HOSTS = 1000
# Looking at the memory of a hundred processes takes a while itself.
EVERY = 2

SERVICE = {"activeSince": "Mon 2026-11-02 08:00:00 UTC", "active": True, "loaded": True, "memoryBytes": 48234496, "state": "running"}
FACTS = {"changed": False, "invocation": {"module_args": {"gather_subset": ["services", "host"]}}, "ansible_facts": {"corvane": {
    "services": {name: SERVICE for name in ("apache2", "cron", "fail2ban", "php8.2-fpm", "postgresql", "ssh", "ufw", "unattended-upgrades")},
    "host": {"hostname": "web", "os": "Debian GNU/Linux 12 (bookworm)", "kernel": "6.1.0-40-amd64", "cpus": 8, "uptime": 1814400}}}}

# Ansible asks ssh itself first what it knows. The last word is what is to be run over there.
SSH = r"""
int main(int argc, char **argv)
{
    char module[65536];
    if (strstr(argv[argc - 1], "python3") == NULL)
        return 255;
    note("+");
    usleep((useconds_t)atoi(getenv("BENCH_MS")) * 1000);
    while (read(0, module, sizeof module) > 0)
        ;
    reply(ANSWER);
    note("-");
    return 0;
}
"""


def environment(folder, tools, collections):
    return {"PATH": f"{tools}:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": str(folder), "LC_ALL": "C.UTF-8", "BENCH_LOG": str(folder / "log"),
            "ANSIBLE_COLLECTIONS_PATH": str(collections), "ANSIBLE_INVENTORY_ENABLED": "corvane.server.hosts", "ANSIBLE_PIPELINING": "1",
            "ANSIBLE_PYTHON_INTERPRETER": "/usr/bin/python3", "ANSIBLE_NOCOLOR": "1", "ANSIBLE_SSH_CONTROL_PATH_DIR": str(folder / "s")}


def row(what, argv, env, count, answered):
    """Runs it once and prints what it took."""
    log = pathlib.Path(env["BENCH_LOG"])
    log.unlink(missing_ok=True)
    seconds, used, peak, text = measured(argv, env, EVERY)
    if text.count(answered) != count:
        raise SystemExit(f"{text.count(answered)} answers of {count}:\n{text[-2000:]}")
    print(f"| {what}, {count} hosts, {int(env['BENCH_MS']) / 1000:g} s each | {seconds:.0f} s | {used:.0f} s | {most_at_once(log)} | {peak:.0f} MiB |", flush=True)


def main():
    if not shutil.which("ansible-playbook"):
        raise SystemExit("apt-get install ansible-core")
    count = int(sys.argv[1]) if len(sys.argv) > 1 else HOSTS
    print("| what | time | processor | connections at once | memory |\n| --- | --- | --- | --- | --- |", flush=True)
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        enter_mounts(folder)
        tools = make_ssh(folder, f"#define ANSWER {json.dumps(json.dumps(FACTS))}\n{SSH}")
        env = environment(folder, tools, make_collection(folder))
        write_hosts(count)
        book = folder / "book.json"
        book.write_text(json.dumps([{"hosts": "all", "gather_facts": False, "tasks": [{"corvane.server.service_facts": {}}]}]))
        play = ["ansible-playbook", "-i", "/etc/corvane/hosts", str(book)]
        for milliseconds in ANSWERS_MS:
            env["BENCH_MS"] = str(milliseconds)
            for forks in FORKS:
                row(f"`ansible-playbook --forks {forks}`", [*play, "--forks", str(forks)], env, count, "ok=1 ")
        row(f"`ansible all --forks {forks}`", ["ansible", "all", "-i", "/etc/corvane/hosts", "--forks", str(forks), "--one-line", "-m",
                                               "corvane.server.service_facts"], env, count, " | SUCCESS => ")
        # The rest is this process's own name space, and ends with it.
        subprocess.run(["umount", "-l", "/etc", str(folder)], check=False)


main()
