"""The Python binding against the real library: verdicts on packages,
chains and manifests, the exact paths a tampered package reports, the
failures it raises, dates in every form it takes, bad input, memory over
many calls, threads, and how the library is found and the package installed."""

from __future__ import annotations

import gc
import json
import os
import pickle
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import tracemalloc
from datetime import date, datetime, timedelta, timezone
from pathlib import Path

import pytest

import velk2
from conftest import EXAMPLE_PACKAGE, EXAMPLE_STORE, SOURCE, TAG, make_tree

PYTHON_SOURCE = SOURCE / "python"


def tree_of(package: Path) -> list:
    """Every entry below |package| but its manifest, as a Report lists them."""
    found = []
    for directory, subdirectories, files in os.walk(package):
        relative = os.path.relpath(directory, package)
        prefix = "" if relative == "." else relative + "/"
        found += [prefix + d + "/" for d in subdirectories]
        found += [prefix + f for f in files if prefix or f != "manifest"]
    return sorted(found, key=os.fsencode)


def signed_at(manifest: Path) -> str:
    match = re.search(rb"\(15:time-of-signing19:([0-9_:-]{19})\)", manifest.read_bytes())
    assert match, f"no time of signing in {manifest}"
    return match.group(1).decode()


def files_of(directory: Path) -> dict:
    return {p.relative_to(directory): p.read_bytes()
            for p in sorted(directory.rglob("*")) if p.is_file()}


def test_bundled_example_verifies_and_the_store_is_only_read(example_store):
    before = files_of(example_store)
    report = velk2.verify_package(EXAMPLE_PACKAGE, store=example_store, tag=TAG)
    assert report.ok and report.code == 0
    assert report.valid == tree_of(EXAMPLE_PACKAGE)
    assert (report.changed, report.missing, report.extra, report.moved) == ([], [], [], [])
    assert report.time_of_signing.utcoffset() == timedelta(0)
    assert report.time_of_signing.strftime("%Y-%m-%d_%H:%M:%S") == \
        signed_at(EXAMPLE_PACKAGE / "manifest")
    assert str(report).startswith("ok: valid ")
    # Every form of path gives the same answer; so does a trailing "/".
    for form in (str(EXAMPLE_PACKAGE), os.fsencode(EXAMPLE_PACKAGE), f"{EXAMPLE_PACKAGE}/"):
        assert velk2.verify_package(form, store=str(example_store), tag=TAG) == report
    assert velk2.verify_package(EXAMPLE_PACKAGE, store=example_store, tag=TAG,
                                manifest=EXAMPLE_PACKAGE / "manifest") == report
    for chain in ("chain.cert", "signer.cert"):
        assert velk2.verify_chain(example_store / chain, store=example_store, tag=TAG) is True
    assert files_of(example_store) == before


def test_version_and_messages():
    assert velk2.version().split()[0] == velk2.__version__
    project = (SOURCE / "CMakeLists.txt").read_text()
    assert re.search(rf"project\(velk2 VERSION {re.escape(velk2.__version__)} ", project)
    assert f'version = "{velk2.__version__}"' in (PYTHON_SOURCE / "pyproject.toml").read_text()
    assert velk2.message(0) == "Success"
    assert velk2.message(31) == "VELK2_ERR_NOT_AUTHORIZED"
    assert velk2.message(67) == "The specified package is not granted the specified authorization"
    assert velk2.message(2**32 - 1) == velk2.message(77) == "VELK_UNKNOWN_ERROR"
    error = velk2.Velk2Error(67, "asked")
    assert (error.code, error.name, error.message, error.detail) == \
        (67, "VELK2_ERR_NOT_GRANTED", velk2.message(67), "asked")
    assert "asked" in str(error) and "67" in str(error)
    assert str(pickle.loads(pickle.dumps(error))) == str(error)
    for bad, kind in ((True, TypeError), ("31", TypeError), (1.0, TypeError),
                      (-1, ValueError), (2**32, ValueError)):
        with pytest.raises(kind):
            velk2.message(bad)


def test_tampered_copy_reports_exactly_what_differs(example_store, example_copy):
    pkg = example_copy
    with open(pkg / "bin" / "hello", "a") as f:
        f.write("echo tampered\n")
    readme = pkg / "share" / "doc" / "hello" / "README"
    (pkg / "share" / "readme-moved").write_bytes(readme.read_bytes())
    readme.unlink()
    (pkg / "share" / "locale" / "de" / "extra.po").write_text("msgid \"x\"\n")
    make_tree(pkg / "share" / "new", {"inside": "x", "deeper/more": "y"})
    (pkg / "toplevel.txt").write_text("at the root\n")
    make_tree(pkg / "BIN", {"hello": "not the listed bin/"})  # names match byte for byte
    odd = os.fsencode(pkg / "share") + b"/odd-\xff"
    with open(odd, "wb") as f:
        f.write(b"not UTF-8 named\n")

    report = velk2.verify_package(pkg, store=example_store, tag=TAG)
    assert not report.ok and report.code == 22
    assert report.changed == ["bin/hello"]
    assert report.missing == ["share/doc/hello/README"]
    odd_name = os.fsdecode(b"share/odd-\xff")
    assert report.extra == sorted(["BIN/", "share/locale/de/extra.po", "share/new/", odd_name,
                                   "share/readme-moved", "toplevel.txt"], key=os.fsencode)
    assert report.moved == [("share/doc/hello/README", "share/readme-moved")]
    assert os.path.exists(os.path.join(pkg, odd_name))
    # Everything listed is in exactly one list; the rest is valid.
    listed = set(tree_of(EXAMPLE_PACKAGE))
    assert set(report.valid) == listed - {"bin/", "bin/hello", "share/", "share/doc/",
                                          "share/doc/hello/", "share/doc/hello/README",
                                          "share/locale/", "share/locale/de/"}
    assert "changed bin/hello" in str(report)
    assert "moved share/doc/hello/README -> share/readme-moved" in str(report)

    # The root left unscanned, and paths left out.
    unscanned = velk2.verify_package(pkg, store=example_store, tag=TAG, scan_root=False)
    assert "toplevel.txt" not in unscanned.extra and "BIN/" not in unscanned.extra
    assert len(unscanned.extra) == 4
    shutil.rmtree(pkg / "BIN")
    with pytest.raises(ValueError):  # the library takes UTF-8 paths only
        velk2.verify_package(pkg, store=example_store, tag=TAG, ignore=[odd_name])
    os.unlink(odd)
    ignoring = velk2.verify_package(pkg, store=example_store, tag=TAG,
                                    ignore=["bin/", "./share/doc/hello/README", "share/new",
                                            "share/readme-moved", Path("toplevel.txt"),
                                            b"share/locale/de/extra.po"])
    assert ignoring.ok, str(ignoring)
    assert "bin/hello" not in ignoring.valid and "share/doc/hello/copyright" in ignoring.valid

    # Extra entries alone: not ok unless allowed, and listed either way.
    extra_only = pkg.parent / "extra-only"
    shutil.copytree(EXAMPLE_PACKAGE, extra_only)
    (extra_only / "share" / "doc" / "new.txt").write_text("new\n")
    strict = velk2.verify_package(extra_only, store=example_store, tag=TAG)
    allowed = velk2.verify_package(extra_only, store=example_store, tag=TAG, allow_extra=True)
    assert (strict.ok, strict.code, strict.extra) == (False, 74, ["share/doc/new.txt"])
    assert (allowed.ok, allowed.code, allowed.extra) == (True, 0, ["share/doc/new.txt"])
    # A directory is valid when everything below it is.
    ancestors = {"share/", "share/doc/"}
    assert strict.valid == allowed.valid == [p for p in tree_of(EXAMPLE_PACKAGE)
                                             if p not in ancestors]


def test_report_agrees_with_the_tool(tool, example_store, example_copy):
    pkg = example_copy
    (pkg / "share" / "doc" / "hello" / "copyright").write_text("changed\n")
    shutil.move(str(pkg / "bin" / "hello"), str(pkg / "share" / "hello-moved"))
    make_tree(pkg / "bin" / "sub", {"x": "x"})
    report = velk2.verify_package(pkg, store=example_store, tag=TAG)
    done = tool.run("verify", pkg, "--store", example_store, "--tag", TAG, "--json",
                    "--no-progress")
    assert done.returncode == 1, done.stdout + done.stderr
    said = json.loads(done.stdout)
    counts = said["counts"]
    assert (len(report.changed), len(report.missing), len(report.extra), len(report.moved)) == \
        (counts["changed"], counts["missing"], counts["extra"], counts["moved"])
    assert report.moved == [(m["from"], m["to"]) for m in said["moves"]]
    assert report.code == said["result"]


def test_directories_differ_themselves_or_not_at_all(authority, tmp_path):
    pkg = make_tree(tmp_path / "pkg", {"bin/run": "#!/bin/sh\n", "lib/a/b.txt": "b",
                                       "lib/c.txt": "c", "doc/readme": "r"})
    (pkg / "lib" / "a").chmod(0o755)
    authority.sign(pkg)
    store = authority.copy_store(tmp_path / "store")
    assert velk2.verify_package(pkg, store=store, tag=TAG).ok

    (pkg / "lib" / "a").chmod(0o700)        # the directory itself differs
    (pkg / "lib" / "c.txt").write_text("C")  # lib/ differs only below
    shutil.rmtree(pkg / "doc")
    (pkg / "bin" / "run").chmod(0o777)
    report = velk2.verify_package(pkg, store=store, tag=TAG)
    assert report.changed == ["bin/run", "lib/a/", "lib/c.txt"]
    assert report.missing == ["doc/", "doc/readme"]
    assert report.valid == ["lib/a/b.txt"] and report.extra == []
    assert velk2.verify_package(pkg, store=store, tag=TAG, ignore=["bin", "doc", "lib"]).ok
    assert report.time_of_signing == datetime(2026, 6, 1, 12, tzinfo=timezone.utc)

    # A directory where a file was listed, and a file where a directory was.
    (pkg / "lib" / "c.txt").unlink()
    (pkg / "lib" / "c.txt").mkdir()
    (pkg / "lib" / "a" / "b.txt").unlink()
    (pkg / "lib" / "a").rmdir()
    (pkg / "lib" / "a").write_text("now a file")
    report = velk2.verify_package(pkg, store=store, tag=TAG)
    assert report.changed == ["bin/run", "lib/a/", "lib/c.txt"], report
    assert report.missing == ["doc/", "doc/readme", "lib/a/b.txt"], report


def test_compare_manifests(authority, tmp_path):
    files = {"bin/tool": "tool 1", "share/a.txt": "a", "share/b.txt": "b", "doc/old": "old"}
    one = make_tree(tmp_path / "one", files)
    two = make_tree(tmp_path / "two", dict(files, **{"bin/tool": "tool 2", "new/file": "n"}))
    shutil.rmtree(two / "doc")
    (two / "share" / "a.txt").rename(two / "share" / "renamed.txt")
    first = authority.sign(one, tmp_path / "one.manifest")
    second = authority.sign(two, tmp_path / "two.manifest")

    same = velk2.compare_manifests(first, first)
    assert same.ok and same.valid == tree_of(one)
    report = velk2.compare_manifests(first, second)
    assert not report.ok and report.code == 22
    assert report.changed == ["bin/tool"]
    assert report.missing == ["doc/", "doc/old", "share/a.txt"]
    assert report.extra == ["new/", "new/file", "share/renamed.txt"]
    assert report.moved == [("share/a.txt", "share/renamed.txt")]
    assert report.time_of_signing == datetime(2026, 6, 1, 12, tzinfo=timezone.utc)
    left_out = velk2.compare_manifests(first, second, ignore=["bin", "doc", "new", "share"])
    assert left_out.ok and left_out.valid == []

    # A manifest altered after signing, one that is none, one not there.
    altered = tmp_path / "altered.manifest"
    data = bytearray(second.read_bytes())
    data[-5] ^= 0x01  # inside the last digest of the body
    altered.write_bytes(bytes(data))
    not_one = tmp_path / "not-one"
    not_one.write_text("(3:abc)")
    for bad in (altered, not_one, tmp_path / "absent"):
        with pytest.raises(velk2.Velk2Error) as caught:
            velk2.compare_manifests(first, bad)
        assert caught.value.code != 0 and str(bad) in str(caught.value)
        with pytest.raises(velk2.Velk2Error):
            velk2.compare_manifests(bad, first)


def test_manifest_that_does_not_verify_raises(example_store, example_copy, tmp_path):
    with pytest.raises(velk2.Velk2Error) as caught:
        velk2.verify_package(EXAMPLE_PACKAGE, store=example_store, tag="(pkg update)")
    error = caught.value
    assert error.code in (31, 67)
    assert error.name == {31: "VELK2_ERR_NOT_AUTHORIZED", 67: "VELK2_ERR_NOT_GRANTED"}[error.code]
    assert error.message == velk2.message(error.code)
    assert str(EXAMPLE_PACKAGE) in str(error) and "(pkg update)" in str(error)
    with pytest.raises(velk2.Velk2Error) as caught:
        velk2.verify_chain(example_store / "signer.cert", store=example_store, tag="(pkg update)")
    assert caught.value.code in (31, 67)
    # chain.cert begins with the vendor's certificate, which holds updates.
    assert velk2.verify_chain(example_store / "chain.cert", store=example_store,
                              tag="(pkg update)")

    # The manifest altered, absent, unreadable, of another kind; a tag that
    # does not read; a period the signer's chain does not cover.
    manifest = example_copy / "manifest"
    data = bytearray(manifest.read_bytes())
    data[-5] ^= 0x01
    manifest.write_bytes(bytes(data))
    garbage = tmp_path / "garbage"
    garbage.write_bytes(b"\x00\xffnot a manifest")
    chain_as_manifest = example_store / "chain.cert"
    cases = [dict(pkgdir=example_copy), dict(manifest=tmp_path / "absent"),
             dict(manifest=garbage), dict(manifest=chain_as_manifest),
             dict(manifest=tmp_path), dict(tag="(pkg"),
             dict(not_before="2040-01-01", not_after="2040-01-02")]
    for case in cases:
        arguments = dict(pkgdir=EXAMPLE_PACKAGE, store=example_store, tag=TAG)
        arguments.update(case)
        pkgdir = arguments.pop("pkgdir")
        with pytest.raises(velk2.Velk2Error) as caught:
            velk2.verify_package(pkgdir, **arguments)
        assert 0 < caught.value.code < 77, case
    with pytest.raises(velk2.Velk2Error):
        velk2.verify_chain(garbage, store=example_store, tag=TAG)
    with pytest.raises(velk2.Velk2Error):
        velk2.verify_chain(tmp_path / "absent.cert", store=example_store, tag=TAG)


def test_revoked_signer_raises(authority, tmp_path):
    pkg = make_tree(tmp_path / "pkg", {"bin/tool": "tool"})
    authority.sign(pkg)
    cleared = authority.copy_store(tmp_path / "cleared")
    revoked = authority.copy_store(tmp_path / "revoked")
    authority.import_list("revoking", [f"{authority.signer}#1"], store=revoked,
                          not_before="2026-02-01_00:00:00")
    no_list = tmp_path / "no-list"
    shutil.copytree(authority.store / "acl", no_list / "acl")

    assert velk2.verify_package(pkg, store=cleared, tag=TAG).ok
    assert velk2.verify_chain(authority.signer, store=cleared, tag=TAG)
    for store in (revoked, no_list):
        with pytest.raises(velk2.Velk2Error) as caught:
            velk2.verify_package(pkg, store=store, tag=TAG)
        assert caught.value.code not in (0, 5, 22, 74)
    with pytest.raises(velk2.Velk2Error) as caught:
        velk2.verify_chain(authority.signer, store=revoked, tag=TAG)
    assert caught.value.code == 66 and caught.value.name == "VELK2_ERR_CERT_REVOKED"
    with pytest.raises(velk2.Velk2Error) as caught:
        velk2.verify_chain(authority.signer, store=no_list, tag=TAG)
    assert caught.value.code == 73


def test_missing_or_broken_store_raises_clearly(tmp_path):
    nowhere = tmp_path / "nowhere"
    a_file = tmp_path / "a-file"
    a_file.write_text("x")
    no_acl = tmp_path / "no-acl"
    no_acl.mkdir()
    for store, said in ((nowhere, "does not exist"), (a_file, "is not a directory"),
                        (no_acl, "ACL directory")):
        for call in (lambda s: velk2.verify_package(EXAMPLE_PACKAGE, store=s, tag=TAG),
                     lambda s: velk2.verify_chain(EXAMPLE_STORE / "chain.cert", store=s, tag=TAG)):
            with pytest.raises(velk2.Velk2Error) as caught:
                call(store)
            assert caught.value.code == 26
            assert str(store) in str(caught.value) and said in str(caught.value)
    empty_acl = tmp_path / "empty-acl"
    (empty_acl / "acl").mkdir(parents=True)
    with pytest.raises(velk2.Velk2Error) as caught:
        velk2.verify_package(EXAMPLE_PACKAGE, store=empty_acl, tag=TAG)
    assert str(empty_acl) in str(caught.value)
    long_store = tmp_path / ("s" * 250)
    shutil.copytree(EXAMPLE_STORE, long_store)
    with pytest.raises(velk2.Velk2Error) as caught:
        velk2.verify_package(EXAMPLE_PACKAGE, store=long_store, tag=TAG)
    assert "longer than" in str(caught.value)


def test_dates_as_datetime_and_as_text_agree(authority, tmp_path):
    pkg = make_tree(tmp_path / "pkg", {"f": "f"})
    authority.sign(pkg)
    store = authority.copy_store(tmp_path / "store")

    def outcome(function, moment):
        try:
            return function(moment, moment)
        except velk2.Velk2Error as error:
            return ("refused", error.code)

    def package(start, end):
        return velk2.verify_package(pkg, store=store, tag=TAG, not_before=start, not_after=end)

    def chain(start, end):
        return velk2.verify_chain(authority.signer, store=store, tag=TAG,
                                  not_before=start, not_after=end)

    plus2 = timezone(timedelta(hours=2))
    inside = ["2026-07-01_00:00:00", "2026-07-01", "2026-07-01T00:00:00", "2026-07-01 00:00:00",
              "2026-07-01T00:00:00Z", "2026-07-01T02:00:00+02:00", "2026-07-01T02:00:00+0200",
              "2026-06-30T20:30:00-03:30", datetime(2026, 7, 1), date(2026, 7, 1),
              datetime(2026, 7, 1, 2, tzinfo=plus2), datetime(2026, 7, 1, tzinfo=timezone.utc)]
    # The chain's period ends at 2027-01-01_00:00:00 UTC: an offset decides.
    edge_in = ["2027-01-01T01:00:00+02:00", "2026-12-31_23:00:00", datetime(2026, 12, 31, 23)]
    edge_out = ["2027-01-01T01:00:00Z", "2026-12-31T23:00:00-02:00", "2027-01-01_01:00:00",
                datetime(2027, 1, 1, 1), datetime(2027, 1, 1, 3, tzinfo=plus2)]
    for function in (package, chain):
        want_in, want_out = outcome(function, inside[0]), outcome(function, edge_out[0])
        assert want_in is True or want_in.ok, want_in
        assert want_out[0] == "refused", want_out
        for moment in inside + edge_in:
            assert outcome(function, moment) == want_in, moment
        for moment in edge_out:
            assert outcome(function, moment) == want_out, moment

    bad_text = ["2026-02-30", "2026-13-01", "2026-01-01_24:00:00", "2026-1-1", "tomorrow", "",
                "2026-01-01T00:00:00+24:00", "2026-01-01_00:00:00Z", "2026-01-01T00:00",
                "\uff12026-01-01", "2026-01-01T00:00:00.5Z"]
    for text in bad_text:
        with pytest.raises(ValueError):
            package(text, None)
    for bad, kind in ((20260101, TypeError), (1.7e9, TypeError), (b"2026-01-01", TypeError),
                      (datetime(1969, 12, 31), ValueError), ("1970-01-01", ValueError)):
        with pytest.raises(kind):
            package(None, bad)
    with pytest.raises(ValueError):
        package("2026-08-01", "2026-07-01")
    with pytest.raises(ValueError):
        chain(datetime(2026, 8, 1), date(2026, 7, 1))


def test_bad_input_is_refused_before_the_library(example_store, tmp_path):
    a_file = tmp_path / "a-file"
    a_file.write_text("x")
    ok = dict(store=example_store, tag=TAG)
    refused = [
        ((42,), ok, TypeError), ((EXAMPLE_PACKAGE,), dict(ok, store=None), TypeError),
        ((EXAMPLE_PACKAGE,), dict(ok, tag=b"(pkg install)"), TypeError),
        ((f"{EXAMPLE_PACKAGE}\0x",), ok, ValueError),
        ((EXAMPLE_PACKAGE,), dict(ok, tag="(pkg\0install)"), ValueError),
        ((EXAMPLE_PACKAGE,), dict(ok, store=f"{example_store}\0"), ValueError),
        ((EXAMPLE_PACKAGE,), dict(ok, manifest="m\0"), ValueError),
        ((b"/tmp/\xff",), ok, ValueError), (("",), ok, ValueError),
        ((EXAMPLE_PACKAGE,), dict(ok, tag="(pkg \udc80)"), ValueError),
        ((EXAMPLE_PACKAGE,), dict(ok, ignore=Path("bin")), TypeError),
        ((EXAMPLE_PACKAGE,), dict(ok, ignore=5), TypeError),
        ((EXAMPLE_PACKAGE,), dict(ok, ignore=[5]), TypeError),
        ((EXAMPLE_PACKAGE,), dict(ok, ignore=["../x"]), ValueError),
        ((EXAMPLE_PACKAGE,), dict(ok, ignore=["."]), ValueError),
        ((EXAMPLE_PACKAGE,), dict(ok, allow_extra="yes"), TypeError),
        ((EXAMPLE_PACKAGE,), dict(ok, scan_root=1), TypeError),
        ((EXAMPLE_PACKAGE, example_store, TAG), {}, TypeError),  # keyword-only
    ]
    for args, kwargs, kind in refused:
        with pytest.raises(kind):
            velk2.verify_package(*args, **kwargs)
    for pkgdir, said in ((a_file, "is not a directory"), (tmp_path / "absent", "does not exist")):
        with pytest.raises(velk2.Velk2Error) as caught:
            velk2.verify_package(pkgdir, **ok)
        assert caught.value.code == 26 and said in str(caught.value)
    with pytest.raises(TypeError):
        velk2.verify_chain(EXAMPLE_STORE / "chain.cert", example_store, TAG)
    with pytest.raises(ValueError):
        velk2.verify_chain("chain\0.cert", **ok)
    with pytest.raises(TypeError):
        velk2.compare_manifests(None, EXAMPLE_PACKAGE / "manifest")
    with pytest.raises(ValueError):
        velk2.compare_manifests(EXAMPLE_PACKAGE / "manifest", "x\0")


def _rss_bytes() -> int:
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def test_a_thousand_calls_do_not_grow_memory(authority, tmp_path):
    # Packages of a few hundred entries: a context or a list left behind on
    # any path would leave tens of kilobytes each time.
    pkg = make_tree(tmp_path / "pkg", {f"d{i % 10}/file-{i}": str(i) for i in range(300)})
    authority.sign(pkg)
    store = authority.copy_store(tmp_path / "store")
    tampered = Path(shutil.copytree(pkg, tmp_path / "tampered"))
    (tampered / "d1" / "file-1").write_text("changed")
    (tampered / "d2" / "extra").write_text("extra")
    (tampered / "d3" / "file-3").rename(tampered / "d3" / "moved")
    other = authority.sign(tampered, tmp_path / "other.manifest")

    calls = [  # success, differences, and each kind of failure
        lambda: velk2.verify_package(pkg, store=store, tag=TAG),
        lambda: velk2.verify_package(tampered, store=store, tag=TAG, ignore=["d9"]),
        lambda: velk2.verify_package(pkg, store=store, tag="(pkg update)"),
        lambda: velk2.verify_package(pkg, store=store, tag="(pkg", not_before="2026-07-01"),
        lambda: velk2.verify_chain(authority.signer, store=store, tag=TAG),
        lambda: velk2.compare_manifests(pkg / "manifest", other),
        lambda: velk2.compare_manifests(pkg / "manifest", tmp_path / "absent"),
        lambda: velk2.message(67),
    ]

    def run(times):
        for _ in range(times):
            for call in calls:
                try:
                    call()
                except velk2.Velk2Error:
                    pass

    run(20)  # warm up: the library's and the interpreter's caches fill
    gc.collect()
    rss_before = _rss_bytes()
    tracemalloc.start()
    try:
        traced_before = tracemalloc.get_traced_memory()[0]
        run(1000 // len(calls))
        gc.collect()
        traced_growth = tracemalloc.get_traced_memory()[0] - traced_before
    finally:
        tracemalloc.stop()
    rss_growth = _rss_bytes() - rss_before
    assert traced_growth < 256 << 10, f"Python objects grew by {traced_growth} bytes"
    assert rss_growth < 8 << 20, f"the process grew by {rss_growth} bytes"


def test_four_threads_get_the_answers_one_thread_gets(example_store, tmp_path):
    # Two stores, one that grants and one that does not: a call that saw
    # the other thread's store would get the other answer.
    refusing = tmp_path / "refusing"
    shutil.copytree(example_store, refusing)
    (refusing / "acl" / "root.acl").unlink()

    def answer(store):
        try:
            return velk2.verify_package(EXAMPLE_PACKAGE, store=store, tag=TAG)
        except velk2.Velk2Error as error:
            return ("refused", error.code)

    def chain_answer(store):
        try:
            return velk2.verify_chain(example_store / "chain.cert", store=store, tag=TAG)
        except velk2.Velk2Error as error:
            return ("refused", error.code)

    expected = {(answer, s): answer(s) for s in (example_store, refusing)}
    expected.update({(chain_answer, s): chain_answer(s) for s in (example_store, refusing)})
    assert expected[(answer, example_store)].ok
    assert isinstance(expected[(answer, refusing)], tuple)
    start = threading.Barrier(4)
    wrong = []

    def worker(index):
        start.wait()
        for round in range(40):
            function = answer if (index + round) % 3 else chain_answer
            store = (example_store, refusing)[(index + round) % 2]
            got = function(store)
            if got != expected[(function, store)]:
                wrong.append((index, round, got))

    threads = [threading.Thread(target=worker, args=(i,)) for i in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(timeout=300)
    assert not any(thread.is_alive() for thread in threads)
    assert wrong == []


def _python(code, env, cwd=None):
    env = dict(env, PYTHONDONTWRITEBYTECODE="1")
    return subprocess.run([sys.executable, "-c", code], env=env, cwd=cwd, capture_output=True,
                          text=True, timeout=120)


def test_how_the_library_is_found():
    base = {k: v for k, v in os.environ.items() if k not in ("VELK2_LIBRARY", "LD_LIBRARY_PATH")}
    base["PYTHONPATH"] = str(PYTHON_SOURCE)
    # Without the library: the module imports and documents itself; a call
    # says what it tried.
    done = _python("import pydoc, velk2\n"
                   "text = pydoc.render_doc(velk2, renderer=pydoc.plaintext)\n"
                   "assert 'verify_package' in text and 'Velk2Error' in text, text\n"
                   "try:\n    velk2.version()\nexcept OSError as e:\n    print(e)\n",
                   dict(base, VELK2_LIBRARY="/nonexistent/libvelk2.so.1"))
    assert done.returncode == 0, done.stderr
    assert "/nonexistent/libvelk2.so.1" in done.stdout and "VELK2_LIBRARY" in done.stdout
    named = os.environ.get("VELK2_LIBRARY")
    if not named:
        pytest.skip("VELK2_LIBRARY is not set: the dynamic linker's search is not tested")
    # Through the dynamic linker, from the directory that holds it.
    done = _python("import velk2; print(velk2.version())",
                   dict(base, LD_LIBRARY_PATH=str(Path(named).resolve().parent)))
    assert done.returncode == 0, done.stderr
    assert done.stdout.split()[0] == velk2.__version__
    # A FIFO in the library's place is refused, not waited on.
    fifo = Path(tempfile.mkdtemp()) / "libvelk2.so.1"
    os.mkfifo(fifo)
    done = _python("import velk2\ntry:\n    velk2.version()\nexcept OSError as e:\n    print(e)",
                   dict(base, VELK2_LIBRARY=str(fifo)))
    shutil.rmtree(fifo.parent)
    assert "not a regular file" in done.stdout, done.stdout + done.stderr
    # A library of another interface version is refused.
    done = _python("import velk2\ntry:\n    velk2.version()\nexcept OSError as e:\n    print(e)",
                   dict(base, VELK2_LIBRARY="libc.so.6"))
    assert "has no Velk2VersionNumber" in done.stdout, done.stdout + done.stderr


def test_pip_installs_the_package(tmp_path):
    if subprocess.run([sys.executable, "-m", "pip", "--version"], capture_output=True).returncode:
        pytest.skip("pip is not installed")
    source = tmp_path / "source"
    shutil.copytree(PYTHON_SOURCE, source, ignore=shutil.ignore_patterns("__pycache__"))
    target = tmp_path / "target"
    env = dict(os.environ, PIP_NO_CACHE_DIR="1", PIP_DISABLE_PIP_VERSION_CHECK="1",
               PYTHONDONTWRITEBYTECODE="1")
    done = subprocess.run([sys.executable, "-m", "pip", "install", "--no-index", "--no-deps",
                           "--no-build-isolation", "--target", str(target), str(source)],
                          env=env, capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stdout + done.stderr
    installed = sorted(p.name for p in (target / "velk2").iterdir() if p.name != "__pycache__")
    assert installed == sorted(p.name for p in (PYTHON_SOURCE / "velk2").iterdir()
                               if p.suffix in (".py", ".typed"))
    store = tmp_path / "store"
    shutil.copytree(EXAMPLE_STORE, store)
    done = _python(f"import velk2; assert velk2.__file__.startswith({str(target)!r})\n"
                   f"print(velk2.verify_package({str(EXAMPLE_PACKAGE)!r}, store={str(store)!r},"
                   f" tag={TAG!r}).ok)",
                   dict(os.environ, PYTHONPATH=str(target)), cwd=tmp_path)
    assert done.returncode == 0 and done.stdout.strip() == "True", done.stdout + done.stderr
