# SPDX-License-Identifier: Apache-2.0
"""What the packages are made from: units, lists of files, scripts, versions. Builds nothing."""

import pathlib
import re
import subprocess

import pytest
import unitfile

TOP = pathlib.Path(__file__).resolve().parents[2]
DEBIAN = TOP / "packaging" / "debian"
UNITS = ("morvad", "qel")
PACKAGES = ("qel", "qel-platform-linux", "qelctl")


def unit(name):
    return unitfile.read((TOP / f"packaging/systemd/{name}.service").read_text(encoding="utf-8"))


def listed(package, kind):
    """The (source, target) rows of a package's list; target is "" for manual pages."""
    path = DEBIAN / f"{package}.{kind}"
    rows = path.read_text(encoding="utf-8").splitlines() if path.exists() else []
    return [(row.split()[0], row.split()[1] if kind == "install" else "") for row in rows]


# ---------------------------------------------------------------------------------------------
# Services


@pytest.mark.parametrize("name", UNITS)
def test_exposure_is_what_the_document_tells(name):
    document = (TOP / "docs/install-linux.md").read_text(encoding="utf-8")
    told = re.search(rf"`{name}\.service` (\d\.\d)", " ".join(document.split()))
    assert told, f"docs/install-linux.md does not tell the exposure of {name}.service"
    path = TOP / f"packaging/systemd/{name}.service"
    output = subprocess.run(
        ["systemd-analyze", "security", "--offline=true", "--no-pager", path],
        **{"capture_output": True, "text": True, "check": False},
    ).stdout
    score = re.search(rf"Overall exposure level for {name}\.service: (\d+\.\d)", output)
    assert score, output
    assert float(score[1]) <= float(told[1])


@pytest.mark.parametrize("name", UNITS)
def test_a_service_starts_again_after_a_failure_and_when_the_switch_restarts(name):
    values = unit(name)
    assert values["Restart"] == ["on-failure"]
    # What each ends with when the gateway restarts the switch.
    restart_status = {"morvad": "75", "qel": "0"}[name]
    assert values["RestartForceExitStatus"] == [restart_status]


@pytest.mark.parametrize("name", UNITS)
def test_a_service_that_does_not_turn_its_loop_is_started_again(name):
    values = unit(name)
    # Both send READY=1 themselves, and feed from their event loop.
    assert values["Type"] == ["notify"]
    assert values["NotifyAccess"] == ["main"]
    assert values["Restart"] == ["on-failure"]  # of which a watchdog that was not fed is one
    # A watchdog must outlast what holds a loop in good order: conf that syncs a slow disk, the
    # 5 seconds in which morvad waits for processes that have to end.
    assert values["WatchdogSec"] == [{"morvad": "30", "qel": "2min"}[name]]


@pytest.mark.parametrize("name", UNITS)
def test_restarts_by_a_gateway_never_use_up_the_starts_of_a_service(name):
    assert unit(name)["StartLimitIntervalSec"] == ["0"]


def test_a_service_that_does_not_end_is_killed_in_time():
    # What morvad gives others to end, and five modules that run into the agent's deadline.
    for name, longest in (("morvad", 5), ("qel", 5 * 2)):
        assert int(*unit(name)["TimeoutStopSec"]) > longest


def test_the_platform_starts_first():
    assert "qel.service" in unitfile.words(unit("morvad"), "Before")
    assert "morvad.service" in unitfile.words(unit("qel"), "After")
    assert "morvad.service" in unitfile.words(unit("qel"), "Wants")


def test_both_services_see_the_firmware_image_in_one_folder():
    assert unit("morvad")["PrivateTmp"] == unit("qel")["PrivateTmp"] == ["yes"]
    assert "morvad.service" in unitfile.words(unit("qel"), "JoinsNamespaceOf")


@pytest.mark.parametrize("name, package", [("morvad", "qel-platform-linux"), ("qel", "qel")])
def test_a_unit_starts_what_its_package_installs(name, package):
    program = unitfile.words(unit(name), "ExecStart")[0]
    rows = listed(package, "install")
    installed = {f"/{target}/{pathlib.Path(source).name}" for source, target in rows}
    assert program in installed
    assert f"/lib/systemd/system/{name}.service" in installed


# ---------------------------------------------------------------------------------------------
# Lists of files


@pytest.mark.parametrize("package", PACKAGES)
def test_what_a_list_names_is_there(package):
    programs = set()
    for path in (TOP / "qel", TOP / "platform/linux", TOP / "gateway"):
        for file in path.rglob("CMakeLists.txt"):
            text = file.read_text(encoding="utf-8")
            programs.update(re.findall(r"add_executable\((\w+)", text))
    rows = listed(package, "install") + listed(package, "manpages")
    assert rows
    for source, _ in rows:
        if source.startswith("obj/bin/"):
            assert source.removeprefix("obj/bin/") in programs, source
        else:
            assert list(TOP.glob(source)), f"{package}: {source} is not in the tree"


def test_every_program_unit_and_manual_page_is_in_one_package():
    sources = [
        source
        for package in PACKAGES
        for kind in ("install", "manpages")
        for source, _ in listed(package, kind)
    ]
    wanted = [f"obj/bin/{name}" for name in ("morvactl", "morvad", "qel", "qelctl")]
    for folder in ("packaging/man", "packaging/systemd", "packaging/wireshark"):
        wanted += [f"{folder}/{path.name}" for path in (TOP / folder).glob("*.*")]
    for source in wanted:
        assert sources.count(source) == 1, source


def test_the_packages_version_is_the_systems():
    cmake = (TOP / "CMakeLists.txt").read_text(encoding="utf-8")
    version = re.search(r"project\(qel VERSION ([0-9.]+)", cmake)[1]
    changelog = (DEBIAN / "changelog").read_text(encoding="utf-8")
    assert changelog.startswith(f"qel ({version})")


@pytest.mark.parametrize("script", sorted(path.name for path in DEBIAN.glob("*.post*")))
def test_maintainer_scripts_can_be_read_by_the_shell(script):
    subprocess.run(["dash", "-n", DEBIAN / script], check=True)
    assert "\nset -e\n" in (DEBIAN / script).read_text(encoding="utf-8")
