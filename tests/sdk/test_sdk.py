# SPDX-License-Identifier: Apache-2.0
"""The agent on a vendor's libraries, for big-endian MIPS, linked by the headers in platform/ alone.

A stand-in SDK (tests/sdk/*.c) is built as a vendor would deliver it, as shared and as static
libraries; the agent is linked against each and run under an emulator, on a wire of its own.
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys

import pytest

TOP = pathlib.Path(__file__).resolve().parents[2]
HERE = TOP / "tests" / "sdk"
BUILD = pathlib.Path(os.environ.get("QEL_SDK_BUILD_DIR", TOP / "build" / "sdk"))
CROSS_ROOT = "/usr/mips-linux-gnu"
STATIC_LIMIT = 1024 * 1024  # bytes of the whole static program, stripped

SMALL = "-Os -DNDEBUG -ffunction-sections -fdata-sections"


def run(*command):
    done = subprocess.run(command, cwd=TOP, capture_output=True, text=True)
    assert done.returncode == 0, f"{command}\n{done.stdout[-4000:]}\n{done.stderr[-4000:]}"
    return done.stdout


def configure(source, build, *definitions):
    launcher = []
    if shutil.which("ccache"):
        launcher = ["-DCMAKE_C_COMPILER_LAUNCHER=ccache", "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"]
    run(
        *("cmake", "-S", source, "-B", build, "-G", "Ninja", *launcher),
        f"-DCMAKE_TOOLCHAIN_FILE={TOP}/cmake/mips-linux-gnu.cmake",
        *("-DCMAKE_BUILD_TYPE=MinSizeRel", f"-DCMAKE_C_FLAGS_MINSIZEREL={SMALL}"),
        *(f"-DCMAKE_CXX_FLAGS_MINSIZEREL={SMALL}", *definitions),
    )


def build_agent(name, link, *libraries):
    """Links the agent once more, of the same objects, and keeps it as `name`, stripped."""
    agent = BUILD / "agent"
    configure(
        TOP,
        agent,
        *("-DQEL_PLATFORM=sdk", f"-DMORVA_SDK={BUILD}/sdk"),
        *("-DQEL_BUILD_TESTS=OFF", "-DQEL_BUILD_GATEWAY=OFF"),
        "-DCMAKE_INTERPROCEDURAL_OPTIMIZATION=ON",
        f"-DQEL_CJSON_SOURCE={TOP}/build/cjson-src",
        f"-DQEL_SDK_LIBRARIES={';'.join(map(str, libraries))}",
        f"-DCMAKE_EXE_LINKER_FLAGS={link} -Wl,--gc-sections",
    )
    run("cmake", "--build", agent, "--target", "qel")
    run("mips-linux-gnu-strip", "-o", BUILD / name, agent / "bin" / "qel")
    return BUILD / name


@pytest.fixture(scope="session")
def sdk():
    configure(HERE, BUILD / "sdk")
    run("cmake", "--build", BUILD / "sdk")
    return BUILD / "sdk"


@pytest.fixture(scope="session")
def shared_agent(sdk):
    return build_agent("qel.shared", "")


@pytest.fixture(scope="session")
def static_agent(sdk):
    return build_agent("qel.static", "-static", *sorted((sdk / "static").glob("*.a")))


def run_agent(*command):
    unshare = ["unshare", "--user", "--map-root-user", "--net", "--mount", "--pid", "--fork"]
    output = run(*unshare, sys.executable, HERE / "inside.py", *command)
    return json.loads(output)


def elf_of(program):
    return run("mips-linux-gnu-readelf", "-h", "-d", program)


# The answer's text, with what the stand-in tells of itself, whatever the time and the machine.
ANSWER = re.compile(
    rb'\{"mac":"0a1b2c3d4e77","cmd":"answer","subcmd":"answer","data":\{'
    rb'"mac":"0a1b2c3d4e77","sys_ip":"192\.168\.9\.9","sys_mask":24,"name":"big-endian",'
    rb'"model":"standin","type":"switch","uptime":[0-9]+,"hw_version":"H1",'
    rb'"sw_version":"9\.9","active":1,"sys_active":0,"cpu":[0-9]{1,3},'
    rb'"mem":[0-9]{1,3},"ntick":12\}\}\x00'
)


def check_answer(result):
    """The answer to the probe: the header byte by byte, the text member by member."""
    frame = bytes.fromhex(result["answer"])
    assert frame[:18] == bytes.fromhex("020000000001 0a1b2c3d4e77 9303 0000 babe")
    assert frame[18:20] == (len(frame) - 32 + 16).to_bytes(2, "big")
    assert frame[20:32] == bytes(12)
    assert ANSWER.fullmatch(frame[32:]), frame[32:]


# ---------------------------------------------------------------------------------------------
# Linked against shared libraries of a vendor


def test_shared_agent_is_for_the_target_and_needs_the_vendors_libraries(shared_agent):
    elf = elf_of(shared_agent)
    assert "2's complement, big endian" in elf
    assert "MIPS R3000" in elf
    needed = {line.split("[")[1].rstrip("]") for line in elf.splitlines() if "(NEEDED)" in line}
    assert needed - {"libgcc_s.so.1"} == {
        *("libstandin_base.so", "libstandin_interfaces.so", "libstandin_system.so", "libc.so.6")
    }


def test_shared_agent_starts_answers_and_ends(shared_agent, sdk):
    result = run_agent(
        *("qemu-mips", "-L", CROSS_ROOT, "-E", f"LD_LIBRARY_PATH={sdk}/lib", "-E", "SDK_SECONDS=3"),
        shared_agent,
    )
    check_answer(result)
    assert result["status"] == 0
    assert result["files"] == ["qel.pid", "qel.udp"]
    calls = [line for line in result["stderr"].splitlines() if line.startswith("sdk: ")]
    for call in (
        "sdk: openzlog qel.shared 33",
        "sdk: hal_init 23",
        "sdk: morva_init",
        "sdk: vty_serv_sock 2625 /var/run/qel.vty",
        "sdk: uclient_connect 0x7f000001 30000 30056",
        "sdk: host_init 0x28000 0",
        "sdk: hal_qel_enable 1",
    ):
        assert call in calls, result["stderr"]
        calls = calls[calls.index(call) + 1 :]  # in this order
    assert result["stderr"].endswith("qel.shared: notice: Vlog terminating on signal\n")


# ---------------------------------------------------------------------------------------------
# Linked statically, nothing else needed on the device


def test_static_agent_is_one_small_file(static_agent):
    assert "(NEEDED)" not in elf_of(static_agent)
    size = static_agent.stat().st_size
    print(f"static agent: {size} bytes")
    assert size < STATIC_LIMIT


def test_static_agent_starts_answers_and_ends(static_agent):
    result = run_agent("qemu-mips", "-E", "SDK_SECONDS=3", static_agent)
    check_answer(result)
    assert result["status"] == 0


# ---------------------------------------------------------------------------------------------
# A delivery that lacks something is found when linking, not on the device


def test_missing_call_fails_the_build(sdk):
    libraries = [path for path in sorted((sdk / "static").glob("*.a")) if "system" not in path.name]
    with pytest.raises(AssertionError, match="undefined reference to .sys_mac_get"):
        build_agent("qel.broken", "-static", *libraries)


# ---------------------------------------------------------------------------------------------
# Options that name no platform, or no delivery, are told at once


@pytest.mark.parametrize(
    "options, told",
    [
        (("-DQEL_PLATFORM=bogus",), "QEL_PLATFORM is linux or sdk, not 'bogus'"),
        (("-DQEL_PLATFORM=sdk", "-DMORVA_SDK=/nope"), "MORVA_SDK: there is no folder /nope/lib"),
        (("-DMORVA_SDK=/nope",), "MORVA_SDK needs -DQEL_PLATFORM=sdk"),
    ],
    ids=["platform", "folder", "folder-without-platform"],
)
def test_wrong_options_end_the_configuration(tmp_path, options, told):
    command = ["cmake", "-S", TOP, "-B", tmp_path, "-G", "Ninja", *options]
    done = subprocess.run(command, capture_output=True, text=True)
    assert done.returncode != 0, done.stdout
    assert told in done.stderr
    assert "Configuring incomplete" in done.stdout + done.stderr


def test_folder_without_libraries_ends_the_configuration(tmp_path):
    (tmp_path / "lib").mkdir()
    command = ["cmake", "-S", TOP, "-B", tmp_path / "build", "-G", "Ninja"]
    command += ["-DQEL_PLATFORM=sdk", f"-DMORVA_SDK={tmp_path}"]
    done = subprocess.run(command, capture_output=True, text=True)
    assert done.returncode != 0, done.stdout
    assert f"MORVA_SDK: no library in {tmp_path}/lib" in re.sub(r"\s+", " ", done.stderr)
