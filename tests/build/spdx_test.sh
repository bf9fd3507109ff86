#!/usr/bin/env bash
# Checks the list of a release's contents that scripts/spdx.py writes, of files that only have the names of a release's.
#
#   spdx_test.sh SOURCE SCRATCH
set -euo pipefail

source=$1 scratch=$2

for needed in python3 dpkg-deb dpkg-query; do
    command -v "$needed" >/dev/null || {
        echo "skipped: there is no $needed"
        exit 77
    }
done
rm -rf "$scratch"
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$scratch/out"
echo tarball >"$scratch/out/plyconvert-1.0.0.tar.gz"
echo zip >"$scratch/out/plyconvert-1.0.0-windows-x86_64.zip"

# package NAME DEPENDS: an empty package.
package() {
    mkdir -p "$scratch/tree/DEBIAN"
    printf '%s\n' "Package: $1" "Version: 1.0.0-1" "Architecture: amd64" "Maintainer: test <test@localhost>" \
        "Depends: $2" "Description: test" >"$scratch/tree/DEBIAN/control"
    dpkg-deb -b "$scratch/tree" "$scratch/out/$1_1.0.0-1_amd64.deb" >/dev/null
    rm -r "$scratch/tree"
}

package libplyconvert1 "libc6 (>= 2.34)"
package plyconvert "libplyconvert1 (= 1.0.0-1), libfmt9, libc6"
export SOURCE_DATE_EPOCH=1700000000
python3 "$source/scripts/spdx.py" 1.0.0 "$scratch/out" >"$scratch/spdx.json"
python3 - "$scratch/spdx.json" "$scratch/out" <<'END'
import hashlib
import json
import pathlib
import sys

document = json.load(open(sys.argv[1]))
files = sorted(pathlib.Path(sys.argv[2]).iterdir())
packages = {package["SPDXID"]: package for package in document["packages"]}
assert len(packages) == len(document["packages"]), "an identifier stands twice"
assert document["creationInfo"]["created"] == "2023-11-14T22:13:20Z", document["creationInfo"]
named = {package.get("packageFileName"): package for package in packages.values()}
for file in files:
    assert named[file.name]["checksums"][0]["checksumValue"] == hashlib.sha256(file.read_bytes()).hexdigest(), file
related = set()
for relation in document["relationships"]:
    assert relation["relatedSpdxElement"] in packages, relation
    start = packages.get(relation["spdxElementId"], {"name": "document"})
    related.add((start["name"], relation["relationshipType"], packages[relation["relatedSpdxElement"]]["name"]))
for file in files:
    assert ("document", "DESCRIBES", file.name) in related, file
for expected in [("plyconvert_1.0.0-1_amd64.deb", "DEPENDS_ON", "libfmt9"),
                 ("plyconvert_1.0.0-1_amd64.deb", "DEPENDS_ON", "libplyconvert1_1.0.0-1_amd64.deb"),
                 ("plyconvert_1.0.0-1_amd64.deb", "CONTAINS", "libboost-dev"),
                 ("plyconvert-1.0.0-windows-x86_64.zip", "CONTAINS", "libz-mingw-w64-dev"),
                 ("plyconvert-1.0.0-windows-x86_64.zip", "CONTAINS", "libboost-dev")]:
    assert expected in related, expected
assert not any(start.startswith("libplyconvert1_") and kind == "CONTAINS" for start, kind, _ in related)
END

# A package whose licence nobody wrote down is an error, not a gap.
package libplyconvert1 "libunheardof1"
if said=$(python3 "$source/scripts/spdx.py" 1.0.0 "$scratch/out" 2>&1 >/dev/null); then
    echo "FAILED: an unknown licence is taken"
    exit 1
fi
[[ $said == "spdx.py: no licence is known for libunheardof1: add it to LICENCES" ]] || {
    echo "FAILED: $said"
    exit 1
}
