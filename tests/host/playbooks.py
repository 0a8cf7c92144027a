"""Ansible's own side of the tests of ansible/: the collection as it is installed, and playbooks that are run over ssh against one
booted host, or two, from the network that visits it."""

import json
import os
import pathlib
import shutil
import subprocess
import tempfile

from hostfloor import ADDRESS, CACHE, OUTSIDE, ROOT, HostError

MODULES = ("account", "account_info", "account_keys", "account_limit", "backup", "firewall_rule", "https", "protection",
           "service_facts")


class Controller:
    """A folder with the collection installed in it, and what ansible needs to reach one host; or two, of which the other one is
    beside it where host.reaching(beside, 22) leads."""

    def __init__(self, host=None, beside=None):
        # Sockets of ssh lie below it, whose paths must be short. The cache folder is there on another release as well.
        CACHE.mkdir(parents=True, exist_ok=True)
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="a-", dir=CACHE))
        self._host = host
        self.env = {
            "PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", "HOME": str(self.folder), "ANSIBLE_HOME": str(self.folder / "a"),
            "ANSIBLE_COLLECTIONS_PATH": str(self.folder / "collections"), "ANSIBLE_NOCOLOR": "1", "ANSIBLE_PIPELINING": "1",
            "ANSIBLE_INVENTORY_UNPARSED_FAILED": "1", "ANSIBLE_SSH_CONTROL_PATH_DIR": str(self.folder / "s"),
            "ANSIBLE_PYTHON_INTERPRETER": "/usr/bin/python3",
            "ANSIBLE_SSH_ARGS": "-F /dev/null -o ControlMaster=auto -o ControlPersist=10s -o StrictHostKeyChecking=no "
                                "-o UserKnownHostsFile=/dev/null -o LogLevel=ERROR",
        }
        self.ok("ansible-galaxy", "collection", "build", str(ROOT / "ansible"), "--output-path", str(self.folder))
        (archive,) = self.folder.glob("corvane-server-*.tar.gz")
        self.ok("ansible-galaxy", "collection", "install", str(archive), "-p", str(self.folder / "collections"))
        self.collection = self.folder / "collections/ansible_collections/corvane/server"
        if host:
            for one in filter(None, (host, beside)):
                one.put("/root/.ssh/authorized_keys", f"{host.key.public}\n{one.key.public}\n", mode="0600")
            both = f"root@{OUTSIDE}\n" if beside else ""
            (self.folder / "hosts").write_text(f"# what is under test\n[web]\nroot@{ADDRESS}\n{both}")
            (self.folder / "servers.corvane.yml").write_text("plugin: corvane.server.hosts\npath: hosts\n")

    def close(self):
        shutil.rmtree(self.folder)

    def argv(self, *argv, folder=None, env=None):
        """The whole command that runs one of ansible's programs: this machine's, or those of the release that CORV_ANSIBLE names."""
        release = [str(ROOT / "scripts/release"), os.environ["CORV_ANSIBLE"]] if os.environ.get("CORV_ANSIBLE") else []
        words = [f"{name}={value}" for name, value in {**self.env, **(env or {})}.items()]
        return [*release, "env", "-i", "-C", str(folder or self.folder), *words, *argv]

    def run(self, *argv, **kwargs):
        """Runs such a program: its exit code, output and errors."""
        return subprocess.run(self.argv(*argv, **kwargs), capture_output=True, text=True, check=False)

    def ok(self, *argv):
        """The same, insisting on success; gives its output."""
        done = self.run(*argv)
        if done.returncode != 0:
            raise HostError(f"{' '.join(argv)} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
        return done.stdout

    def play(self, *argv, timeout=600):
        """Runs ansible-playbook against its hosts: its exit code, output and errors."""
        return self._host.outside(self.argv("ansible-playbook", "-i", "servers.corvane.yml",
                                            "--private-key", str(self._host.key.private), *argv), timeout=timeout)

    def book(self, play):
        """Writes a playbook of one play for all of its hosts, and gives its path."""
        path = self.folder / "book.json"
        path.write_text(json.dumps([{"hosts": "all", "gather_facts": False, **play}]))
        return str(path)

    def counts(self, *argv):
        """Runs a playbook, also one that fails, and gives what it counts for each host, such as {"10.213.0.2": {"changed": 1, ...}}."""
        done = self.play(*argv)
        self.said = done.out + done.err
        lines = [line.split(":", 1) for line in done.out.splitlines() if "unreachable=" in line]
        return {name.strip(): {word: int(count) for word, _, count in (pair.partition("=") for pair in counts.split())}
                for name, counts in lines}

    def tasks(self, *tasks):
        """Runs tasks one after the other, also after one that failed, and gives the result of each as a registered variable has it.
        A task is (module, options) or (module, options, more), with what is beside the module in a task."""
        steps = []
        for number, (module, options, *more) in enumerate(tasks):
            steps.append({f"corvane.server.{module}": options, "register": f"r{number}", "ignore_errors": True, "diff": True,
                          **(more[0] if more else {})})
        steps.append({"ansible.builtin.copy": {"content": "{{ {'all': [" + ", ".join(f"r{n}" for n in range(len(tasks))) + "]} | to_json }}",
                                               "dest": str(self.folder / "results")},
                      "delegate_to": "localhost", "diff": False})
        # Whatever a task's result has in it is said then, unless it is hidden.
        done = self.play("-v", self.book({"tasks": steps}), timeout=300)
        if done.code != 0:
            raise HostError(f"the playbook ended with {done.code}:\n{done.out}{done.err}")
        self.said = done.out + done.err
        return json.loads((self.folder / "results").read_text())["all"]

    def states(self, *wanted):
        """Brings the host into one state after the other, each (module, options). Check mode must foretell each run, and a second
        run must find nothing to do. Gives each first run's result."""
        tasks = []
        for module, options in wanted:
            tasks += [(module, options, {"check_mode": True}), (module, options), (module, options)]
        results = self.tasks(*tasks)
        found = []
        for number, (module, options) in enumerate(wanted):
            told, done, again = results[3 * number:3 * number + 3]
            if any(result.get("failed") for result in (told, done, again)):
                raise HostError(f"{module} {options}: {[result.get('msg') for result in (told, done, again)]}")
            assert (told["changed"], told["diff"]) == (done["changed"], done["diff"]), (module, options)
            assert done["changed"] == (done["diff"]["before"] != done["diff"]["after"]), (module, options)
            assert not again["changed"], (module, options, again["diff"])
            assert again["diff"] == {"before": done["diff"]["after"], "after": done["diff"]["after"]}, (module, options)
            found.append(done)
        return found

