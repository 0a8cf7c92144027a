"""What an account or the panel's user left lying is no way in while root upgrades, removes, purges and installs the package. Each
of these steps is taken with all that was left; what is root's, or another's, is the same afterwards."""

import pytest

LIMIT = 300
NONINTERACTIVE = {"DEBIAN_FRONTEND": "noninteractive"}
TRANSFER = "/var/lib/corvane/transfer"
PREY = ("/etc/shadow", "/etc/passwd", "/srv/prey", "/srv/prey/kept")

# Gets whoever it is called by as a superuser made one.
PLANTED = """CREATE FUNCTION public.format(text, text) RETURNS text LANGUAGE plpgsql AS $$ BEGIN
    IF (SELECT rolsuper FROM pg_catalog.pg_roles WHERE rolname = current_user) THEN
        EXECUTE 'ALTER ROLE @ME@ SUPERUSER';
    END IF;
    RETURN pg_catalog.format($1, VARIADIC ARRAY[$2]);
END $$;
CREATE FUNCTION public.planted(name, text) RETURNS bool LANGUAGE plpgsql AS $$ BEGIN
    IF (SELECT rolsuper FROM pg_catalog.pg_roles WHERE rolname = current_user) THEN
        EXECUTE 'ALTER ROLE @ME@ SUPERUSER';
    END IF;
    RETURN pg_catalog.texteq($1::text, $2);
END $$;
CREATE OPERATOR public.= (LEFTARG = name, RIGHTARG = text, FUNCTION = public.planted)"""


@pytest.fixture(scope="module")
def own_host(boot):
    """A host that may be left without the package."""
    host = boot()
    yield host
    host.stop()


@pytest.fixture
def account(own_host):
    return own_host.account()


def steps(package):
    files = [f"/root/{file.name}" for file in (package, *package.parent.glob("libapache2-mod-corvane_*.deb"))]
    install = ["apt-get", "-q", "install", "--reinstall", "--yes", *files]
    purge = ["apt-get", "-q", "purge", "--yes", "corv-agent", "libapache2-mod-corvane"]
    return {"an upgrade": install, "a purge": purge, "an installation": install}


def seen(host):
    """Modes, owners, sizes and contents of what nobody but root may change."""
    host.ok(["sh", "-c", "[ -e /srv/prey ] || { mkdir -m 700 /srv/prey && echo treasure >/srv/prey/kept; }"])
    return host.ok(["stat", "-c", "%n %a %U:%G %h", *PREY]) + host.get("/srv/prey/kept") + host.get("/etc/shadow")


def through_all(host, package):
    """Takes each step; waits until the agent that the last one installed is there."""
    before = seen(host)
    for name, argv in steps(package).items():
        host.ok(argv, env=NONINTERACTIVE, timeout=300)
        assert seen(host) == before, name
    host.wait_for_unit("corv-agent")
    assert seen(host) == before


def test_links_in_the_panels_folder_lead_no_step_anywhere(own_host, account, package):
    host = own_host
    host.ok(["sh", "-c", f"""
        cd {TRANSFER}
        ln -s /etc/shadow corv-a; ln -s /srv/prey corv-b; mkfifo corv-c; mkdir corv-d; ln -s /srv/prey corv-d/e
        ln /etc/passwd corv-f 2>/dev/null || true
        touch -h -d '3 days ago' corv-a corv-b corv-c corv-d/e corv-d"""], user="corv-web")
    through_all(host, package)
    before = seen(host)
    host.ok(["systemd-tmpfiles", "--create", "--clean"])
    assert seen(host) == before
    assert host.mode(TRANSFER) == "700 corv-web corv-web"


def test_links_in_a_home_and_in_open_folders_lead_no_step_anywhere(own_host, account, package):
    host = own_host
    host.ok(["sh", "-c", f"""
        cd {account.home}
        rm -rf tmp logs; ln -s /srv/prey tmp; ln -s /srv/prey logs; ln -s /etc/shadow public_html/.htaccess; mkfifo .profile
        for folder in /tmp /var/tmp /dev/shm; do
            ln -s /srv/prey $folder/corv-agent; ln -s /etc/shadow $folder/corv-restore; mkfifo $folder/corvane
        done"""], user=account.name)
    through_all(host, package)


def test_no_superuser_through_what_was_left_in_the_databases_of_all(own_host, account, package):
    """Whatever psql the package's steps call finds the system's functions and operators alone."""
    host = own_host
    for database in ("postgres", "template1"):
        host.sql(f"GRANT CONNECT ON DATABASE {database} TO PUBLIC; GRANT CREATE ON SCHEMA public TO PUBLIC", database=database)
        planted = host.run(["psql", "-qtAX", "-v", "ON_ERROR_STOP=1", "-d", database, "-c", PLANTED.replace("@ME@", account.name)],
                           user=account.name)
        assert planted.code == 0, planted.err
    # What a host has that never saw the package: the set-up has everything to do.
    host.ok(["systemctl", "stop", "corv-agent"])
    host.sql("DROP DATABASE corvane")
    host.sql('DROP ROLE "corv-web"')
    through_all(host, package)
    assert host.sql("SELECT rolname FROM pg_roles WHERE rolsuper ORDER BY 1").out == "postgres\n"
    assert host.sql("SELECT pg_get_userbyid(datdba) FROM pg_database WHERE datname = 'corvane'").out == "corv-web\n"


def test_ids_of_former_accounts_stay_taken_after_a_purge(own_host, account, package):
    """Whoever installs the package anew gives nobody the id of an account that was deleted before."""
    host = own_host
    uid = host.ok(["id", "-u", account.name]).strip()
    assert host.request("hosting.delete", username=account.name, confirm=account.name)["ok"] is True
    through_all(host, package)
    assert host.ok(["id", "-u", host.account().name]).strip() != uid
    assert host.exists(f"/etc/userdb/{uid}.user")
