#!/usr/bin/python3
"""sbom_test.py SBOM VONDCTL: the list of a package's parts names what is in it, is the same each time, and its check
finds each kind of fault."""
import copy, json, os, pathlib, shutil, subprocess, sys, tempfile

SBOM, VONDCTL = sys.argv[1:]
CONTROL = "Package: sample\nVersion: 1.2\nMaintainer: Somebody <somebody@localhost>\n"

if not shutil.which("dpkg-query") or not shutil.which("readelf"):
    sys.exit(77)


def make(image):
    output = image / "usr/share/doc/sample/sample.spdx.json"
    subprocess.run([SBOM, image, "--output", output], check=True, env=dict(os.environ, SOURCE_DATE_EPOCH="86400"))
    return output


def faults(image, document):
    done = subprocess.run([SBOM, image, "--check", document], stderr=subprocess.PIPE, text=True)
    if (done.returncode, bool(done.stderr)) not in ((0, False), (1, True)):
        sys.exit(f"exit status {done.returncode}: {done.stderr}")
    return done.stderr


def wanted(condition, text):
    if not condition:
        sys.exit(text)


# Name, what is done to the document, a part of what the check says.
DAMAGES = [
    ("another version", lambda d: d.update(spdxVersion="SPDX-3.0"), "not SPDX 2.3"),
    ("namespace with a fragment", lambda d: d.update(documentNamespace="urn:a#b"), "documentNamespace"),
    ("no time", lambda d: d["creationInfo"].pop("created"), "creationInfo"),
    ("no relationships", lambda d: d.pop("relationships"), "has no relationships"),
    ("package without a licence", lambda d: d["packages"][1].pop("licenseDeclared"), "has no licenseDeclared"),
    ("package twice", lambda d: d["packages"].append(d["packages"][1]), "is there twice"),
    ("identifier with a space", lambda d: d["files"][0].update(SPDXID="SPDXRef-a b"), "is no SPDX identifier"),
    ("package left out", lambda d: d["packages"].pop(), "is not in the document"),
    ("unrelated package", lambda d: d["packages"].append(dict(d["packages"][1], SPDXID="SPDXRef-x")), "nothing relates"),
    ("file left out", lambda d: d["files"].pop(0), "is not listed"),
    ("another checksum", lambda d: d["files"][0]["checksums"][1].update(checksumValue="0" * 64), "another SHA256"),
    ("another code", lambda d: d["packages"][0]["packageVerificationCode"].update(packageVerificationCodeValue="0"),
     "another packageVerificationCode"),
]

with tempfile.TemporaryDirectory() as name:
    images = [pathlib.Path(name, "one"), pathlib.Path(name, "two")]
    for image in images:
        (image / "DEBIAN").mkdir(parents=True)
        (image / "DEBIAN/control").write_text(CONTROL)
        (image / "usr/bin").mkdir(parents=True)
        shutil.copy(VONDCTL, image / "usr/bin/vondctl")
        (image / "usr/share/doc/sample").mkdir(parents=True)
        (image / "usr/share/doc/sample/notes").write_text("notes\n")
    first, second = map(make, images)
    wanted(first.read_bytes() == second.read_bytes(), "two images with the same files give different lists")
    wanted(faults(images[0], first) == "", f"the check complains: {faults(images[0], first)}")

    document = json.loads(first.read_text())
    wanted(document["creationInfo"]["created"] == "1970-01-02T00:00:00Z", "the time is not SOURCE_DATE_EPOCH")
    linked = {(r["relationshipType"], r["relatedSpdxElement"].removeprefix("SPDXRef-Package-"))
              for r in document["relationships"] if r["spdxElementId"] == "SPDXRef-File-usr-bin-vondctl"}
    names = {name.rstrip("0123456789") for _, name in linked}
    for library in ("libyara", "libprotobuf", "libpococrypto", "libc", "zlib1g"):
        wanted(library in names, f"vondctl links {library}, and the list has only {sorted(names)}")
    wanted(("STATIC_LINK", "nlohmann-json3-dev") in linked, "nlohmann-json3 is compiled in")
    unknown = [p["name"] for p in document["packages"] if p["licenseDeclared"] == "NOASSERTION"]
    wanted(not unknown, f"no licence is known of {unknown}: add them to LICENCES")

    for damage, change, part in DAMAGES:
        damaged = copy.deepcopy(document)
        change(damaged)
        first.write_text(json.dumps(damaged))
        wanted(part in faults(images[0], first), f"{damage}: the check says {faults(images[0], first)!r}")
    first.write_text(json.dumps(document))

    (images[0] / "usr/share/doc/sample/notes").write_text("other notes\n")
    wanted("notes has another SHA1" in faults(images[0], first), "a changed file goes unnoticed")
    (images[0] / "usr/share/doc/sample/notes").unlink()
    wanted("notes is missing" in faults(images[0], first), "a missing file goes unnoticed")
