"""Writes an SPDX 2.3 document (JSON) of what a release holds: its files with their checksums, and the packages that the
Debian packages need, with the versions of this machine, which built them.

    spdx.py VERSION FOLDER
"""
import datetime
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys

# Licences by the copyright files of the source packages. Static libraries and headers become part of the program.
LICENCES = {
    "libc6": "LGPL-2.1-or-later",
    "libgcc-s1": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "libstdc++6": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "libfmt9": "MIT",
    "libzstd1": "BSD-3-Clause OR GPL-2.0-only",
    "zlib1g": "Zlib",
    "libproj25": "MIT",
    "libtiff6": "libtiff",
    "libgeotiff5": "MIT",
    "libpng16-16": "libpng-2.0",
    "libcli11-dev": "BSD-3-Clause",
    "nlohmann-json3-dev": "MIT",
    "libboost-dev": "BSL-1.0",
    "libfmt-dev": "MIT",
    "libz-mingw-w64-dev": "Zlib",
    "g++-mingw-w64-x86-64-posix": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "gcc-mingw-w64-x86-64-posix": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "mingw-w64-x86-64-dev": "ZPL-2.1 AND MIT AND BSD-3-Clause",
}
HEADERS = ["libcli11-dev", "nlohmann-json3-dev", "libboost-dev"]
# Code of others in the zip for Windows: headers, fmt as a header, and statically linked zlib and runtimes.
WINDOWS = HEADERS + ["libfmt-dev", "libz-mingw-w64-dev", "g++-mingw-w64-x86-64-posix", "gcc-mingw-w64-x86-64-posix",
                     "mingw-w64-x86-64-dev"]


def spdx_id(name):
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", "-", name)


def digest(path, kind):
    return hashlib.new(kind, path.read_bytes()).hexdigest()


def installed_version(package):
    shown = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package], capture_output=True, text=True)
    return shown.stdout or "NOASSERTION"


def dependencies(package):
    field = subprocess.run(["dpkg-deb", "-f", package, "Depends"], capture_output=True, text=True, check=True).stdout
    return [part.split()[0] for part in field.replace("\n", " ").split(",") if part.strip()]


def main():
    version, folder = sys.argv[1], pathlib.Path(sys.argv[2])
    epoch = int(os.environ["SOURCE_DATE_EPOCH"])
    created = datetime.datetime.fromtimestamp(epoch, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")
    artifacts = sorted(path for path in folder.iterdir() if path.suffix in (".deb", ".gz", ".zip"))
    sums = hashlib.sha256("".join(digest(path, "sha256") for path in artifacts).encode()).hexdigest()

    own = {path.name.split("_")[0] for path in artifacts if path.suffix == ".deb"}
    packages, relationships, needed = [], [], set()
    for path in artifacts:
        packages.append({
            "name": path.name, "SPDXID": spdx_id(path.name), "versionInfo": version, "packageFileName": path.name,
            "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "licenseConcluded": "NOASSERTION",
            "licenseDeclared": "LicenseRef-all-rights-reserved", "copyrightText": "2026 the authors of plyconvert",
            "checksums": [{"algorithm": "SHA256", "checksumValue": digest(path, "sha256")}]})
        relationships.append({"spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES",
                              "relatedSpdxElement": spdx_id(path.name)})
        contained = []
        if path.name.startswith(("plyconvert_", "plyconvert-geo_")):
            contained = HEADERS
        elif path.suffix == ".zip":
            contained = WINDOWS
        needed.update(contained)
        relationships += [{"spdxElementId": spdx_id(path.name), "relationshipType": "CONTAINS",
                           "relatedSpdxElement": spdx_id(name)} for name in contained]
        if path.suffix != ".deb":
            continue
        for name in dependencies(path):
            if name in own:
                target = next(other.name for other in artifacts if other.name.startswith(name + "_"))
            else:
                needed.add(name)
                target = name
            relationships.append({"spdxElementId": spdx_id(path.name), "relationshipType": "DEPENDS_ON",
                                  "relatedSpdxElement": spdx_id(target)})
    for name in sorted(needed):
        licence = LICENCES.get(name)
        if licence is None:
            sys.exit(f"spdx.py: no licence is known for {name}: add it to LICENCES")
        packages.append({
            "name": name, "SPDXID": spdx_id(name), "versionInfo": installed_version(name),
            "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "licenseConcluded": "NOASSERTION",
            "licenseDeclared": licence if licence != "NOASSERTION" else "NOASSERTION", "copyrightText": "NOASSERTION",
            "supplier": "Organization: Debian"})
    json.dump({
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": f"plyconvert-{version}",
        "documentNamespace": f"https://plyconvert.invalid/spdx/{version}/{sums}",
        "creationInfo": {"created": created, "creators": ["Organization: the authors of plyconvert", "Tool: spdx.py"]},
        "packages": packages, "relationships": relationships,
        "hasExtractedLicensingInfos": [{
            "licenseId": "LicenseRef-all-rights-reserved", "name": "All rights reserved",
            "extractedText": "No licence has been chosen for this project yet. All rights are with its authors."}],
    }, sys.stdout, indent=1)
    print()


if __name__ == "__main__":
    main()
