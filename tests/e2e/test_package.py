"""Fetching the package and starting the installer: names, folders, addresses, and what is on disk already."""

from __future__ import annotations

import shutil

import pytest

from bed import version
from bed import traces
from bed.http_server import Reply
from world import DESCRIPTION, FAILED, FOLDER, PACKAGE, PACKAGE_CONTENT, World

STORED = "Halvoro.ARM64.msi"


def test_an_update_is_stored_and_the_installer_started(world: World) -> None:
    world.offer()
    run = world.run()
    world.assert_installs(run)
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION, PACKAGE + ".minisig", PACKAGE]
    assert (world.store / STORED).read_bytes() == PACKAGE_CONTENT


def test_the_package_is_asked_for_as_binary_and_without_more_headers(world: World) -> None:
    world.offer()
    world.assert_installs(world.run())
    signature, package = world.requests[2:]
    assert signature.header("Accept") == "text/plain"
    assert package.header("Accept") == "application/octet-stream"
    for request in (signature, package):
        assert request.header("User-Agent") == f"Lumaris/{version.OWN}"
        assert request.header("Host") == "updates.tavrin.example"
        assert request.header("Cache-Control") is None
        assert request.header("Pragma") is None


def test_the_maker_s_folder_may_exist(world: World) -> None:
    world.maker_folder.mkdir()
    (world.maker_folder / "other.txt").write_text("kept", encoding="ascii")
    world.offer()
    world.assert_installs(world.run())
    assert (world.maker_folder / "other.txt").read_text(encoding="ascii") == "kept"


# Variants


def test_a_variant_is_part_of_the_package_s_name(world: World) -> None:
    world.offer(package="/Halvoro/3.4.1/Halvoro.ARM64-sl.msi")
    world.assert_installs(world.run("-sl"), base="Halvoro.ARM64-sl")
    assert world.targets[2:] == ["/Halvoro/3.4.1/Halvoro.ARM64-sl.msi.minisig", "/Halvoro/3.4.1/Halvoro.ARM64-sl.msi"]
    assert (world.store / "Halvoro.ARM64-sl.msi").read_bytes() == PACKAGE_CONTENT


@pytest.mark.parametrize("arguments", ["-s/l", "..\\x", "-sl?", "/", "\\", "?", '""', '"" -sl'])
def test_a_variant_that_could_change_the_path_is_ignored(world: World, arguments: str) -> None:
    world.offer()
    world.assert_installs(world.run(arguments))
    assert world.targets[2:] == [PACKAGE + ".minisig", PACKAGE]


def test_only_the_first_argument_is_a_variant(world: World) -> None:
    world.offer(package="/Halvoro/3.4.1/Halvoro.ARM64-sl.msi")
    world.assert_installs(world.run("-sl -en"), base="Halvoro.ARM64-sl")


def test_a_variant_may_be_quoted(world: World) -> None:
    world.offer(package="/Halvoro/3.4.1/Halvoro.ARM64-sl.msi")
    world.assert_installs(world.run('"-sl"'), base="Halvoro.ARM64-sl")


def test_each_variant_is_stored_on_its_own(world: World) -> None:
    world.offer()
    world.publish("/Halvoro/3.4.1/Halvoro.ARM64-sl.msi", b"another package")
    world.assert_installs(world.run())
    world.assert_installs(world.run("-sl"), base="Halvoro.ARM64-sl")
    assert (world.store / STORED).read_bytes() == PACKAGE_CONTENT
    assert (world.store / "Halvoro.ARM64-sl.msi").read_bytes() == b"another package"


# What is on disk already


def store(world: World, content: bytes) -> None:
    world.store.mkdir(parents=True)
    (world.store / STORED).write_bytes(content)


def test_a_package_that_is_there_is_not_downloaded_again(world: World) -> None:
    world.offer()
    store(world, PACKAGE_CONTENT)
    world.assert_installs(world.run())
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION, PACKAGE + ".minisig"]


def test_the_next_run_uses_what_the_first_one_downloaded(world: World) -> None:
    world.offer()
    world.assert_installs(world.run())
    world.server.requests.clear()
    world.assert_installs(world.run())
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION, PACKAGE + ".minisig"]


@pytest.mark.parametrize("stale", [
    b"",
    PACKAGE_CONTENT[:-1],
    PACKAGE_CONTENT + b"x",
    PACKAGE_CONTENT * 2,
    b"x" + PACKAGE_CONTENT[1:],
], ids=["empty", "shorter", "one byte longer", "much longer", "changed"])
def test_a_stale_package_is_replaced(world: World, stale: bytes) -> None:
    world.offer()
    store(world, stale)
    world.assert_installs(world.run())
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION, PACKAGE + ".minisig", PACKAGE]
    assert (world.store / STORED).read_bytes() == PACKAGE_CONTENT


@pytest.mark.parametrize("size", [0, 1, 8191, 8192, 8193, 1_000_000])
def test_a_package_of_any_size_is_fetched_and_then_reused(world: World, size: int) -> None:
    content = bytes(index * 7 % 251 for index in range(size))
    world.offer(content=content)
    world.assert_installs(world.run())
    assert (world.store / STORED).read_bytes() == content
    world.server.requests.clear()
    world.assert_installs(world.run())
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION, PACKAGE + ".minisig"]


def test_a_package_without_an_announced_length_is_fetched(world: World) -> None:
    world.offer()
    world.answer(PACKAGE, Reply(PACKAGE_CONTENT, chunked=True))
    world.assert_installs(world.run())
    assert (world.store / STORED).read_bytes() == PACKAGE_CONTENT


# Addresses


@pytest.mark.parametrize(("url", "package"), [
    ("http://updates.tavrin.example/Halvoro/3.4.1/", PACKAGE),
    ("http://updates.tavrin.example/Halvoro/3.4.1", PACKAGE),
    ("HTTP://updates.tavrin.example/Halvoro/3.4.1", PACKAGE),
    ("http://updates.tavrin.example:80/Halvoro/3.4.1", PACKAGE),
    ("http://updates.tavrin.example:65616/Halvoro/3.4.1", PACKAGE),  # a port above 65535 is none
    ("http://updates.tavrin.example", "/Halvoro.ARM64.msi"),
    ("http://updates.tavrin.example/", "/Halvoro.ARM64.msi"),
    ("http://updates.tavrin.example//", "//Halvoro.ARM64.msi"),
    ("http://127.0.0.1/Halvoro/3.4.1/", PACKAGE),
    ("http://updates.tavrin.example/x?y=z", "/x?y=z/Halvoro.ARM64.msi"),
    ("ws://updates.tavrin.example/Halvoro/3.4.1/", PACKAGE),
])
def test_the_package_s_address(world: World, url: str, package: str) -> None:
    world.offer(url=url, package=package)
    world.assert_installs(world.run())
    assert world.targets[2:] == [package + ".minisig", package]


def test_an_explicit_port_is_used(world: World) -> None:
    other = world.serve(8080)
    world.offer(url="http://packages.tavrin.example:8080/files/", package=None)
    world.publish("/files/Halvoro.ARM64.msi", PACKAGE_CONTENT, server=other)
    world.assert_installs(world.run())
    assert other.targets == ["/files/Halvoro.ARM64.msi.minisig", "/files/Halvoro.ARM64.msi"]
    assert other.requests[0].header("Host") == "packages.tavrin.example:8080"
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]


@pytest.mark.parametrize(("url", "message"), [
    ("ftp://updates.tavrin.example/", "Unrecognized scheme"),
    ("file:///C:/packages/", "Unrecognized scheme"),
    ("mailto:updates@tavrin.example", "Unrecognized scheme"),
    ("updates.tavrin.example/Halvoro/3.4.1/", "Unrecognized scheme"),
    ("http://", "Failed to parse URL"),
    ("!", "Failed to parse URL"),
    ("", "update URL unavailable"),
])
def test_an_address_that_cannot_be_used_is_refused(world: World, url: str, message: str) -> None:
    world.offer(url=url, package=None)
    world.assert_failed(world.run(), message)
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]
    assert not world.maker_folder.exists()


# Elevation


def test_a_run_without_elevation_stores_in_the_temporary_folder(world: World) -> None:
    manifest = b'level="requireAdministrator"'
    image = world.bed.program_file.read_bytes()
    assert image.count(manifest) == 1
    patched = world.bed.network.work / "plain.exe"
    patched.write_bytes(image.replace(manifest, b'level="asInvoker"'.ljust(len(manifest))))
    program = world.machine.install(patched, "plain.exe")
    world.offer()
    run = world.run(program=program)
    world.assert_installs(run, folder=world.temp_path)
    assert (world.temp / STORED).read_bytes() == PACKAGE_CONTENT
    assert not world.maker_folder.exists()


# Folders and files that are in the way


def test_a_file_in_the_place_of_the_maker_s_folder(world: World) -> None:
    world.maker_folder.parent.mkdir(exist_ok=True)
    world.maker_folder.write_bytes(b"")
    world.offer()
    world.assert_failed(world.run(), "Failed to create Common\\Tavrin subfolder Lumaris: Path not found.")
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]


def test_a_folder_in_the_place_of_the_package(world: World) -> None:
    (world.store / STORED).mkdir(parents=True)
    world.offer()
    world.assert_failed(world.run(), "Failed to open file: Access denied.")
    assert world.targets == [DESCRIPTION + ".minisig", DESCRIPTION]


@pytest.mark.any_processor
def test_an_installer_planted_in_the_folder_that_it_is_started_in_is_not_run(world: World) -> None:
    """The shell looks for a program without a folder in the current one first."""
    planted = world.machine.unix_path("C:\\planted")
    planted.mkdir()
    try:
        shutil.copyfile(world.machine.folder / "agent.exe", planted / "msiexec.exe")
        world.offer()
        run = world.machine.run(f'cmd.exe /c "cd /d C:\\planted && "{world.bed.program}""', limit=50)
        assert (run.exit_code, run.events, len(run.commands)) == (0, (), 1)
        # The shell leaves the program itself, too.
        assert {each for each in world.installers(run) if "msiexec" in each} == {"C:\\windows\\system32\\msiexec.exe"}
    finally:
        shutil.rmtree(planted)


VARIANTS = {
    "a quotation mark": '"', "an option behind a quotation mark": '" /x {0}', "a colon": ":", "a stream": ":stream", "an asterisk": "*",
    "less": "<", "greater": ">", "a pipe": "|", "a device": "CON", "two dots": "..", "dots alone": "....", "300 characters": "x" * 300,
    "blanks": " /x other ", "an environment reference": "%TEMP%", "an ampersand": "&calc.exe", "a tab": "\t", "an option": "/x",
}


@pytest.mark.any_processor
@pytest.mark.parametrize("variant", VARIANTS.values(), ids=VARIANTS)
def test_a_variant_is_a_part_of_two_names_and_never_an_argument_of_the_installer(world: World, variant: str) -> None:
    world.offer()
    world.publish(f"{FOLDER}Halvoro.ARM64{variant}.msi", PACKAGE_CONTENT)
    quoted = variant.replace('"', '\\"')
    run = world.run(f'"{quoted}"')
    if not run.commands:
        assert run.exit_code == FAILED
        assert len(run.events) == 1
        return
    package = world.store_path + "Halvoro.ARM64" + ("" if "/" in variant else variant)
    assert '"' not in package
    parameters = f'/i "{package}.msi" /l* "{package}.log" /qn /norestart'
    assert run.commands == (traces.ShellCommand(None, "msiexec.exe", parameters, None, 1),)
    assert (run.exit_code, run.events) == (0, ())
