#!/usr/bin/env bash
# Fetches minizip (contrib/minizip of zlib 1.3.1, from Debian 13's zlib source
# package) into DEST (default: third_party/zlib-src beside this script's
# repository). Skips the fetch when DEST already holds the sources.
#
# apt runs under a private configuration (its own source list, lists and cache
# folders), so the machine's apt files are never touched. The archive's URI is
# read from the machine's own apt sources.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
dest=${1:-"$repo/third_party/zlib-src"}
marker="$dest/contrib/minizip/unzip.c"
[ -f "$marker" ] && exit 0

# The first Debian archive URI configured on this machine (deb822 or one-line form).
archive_uri() {
  local f
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    awk '
      /^URIs:/ { uri=$2 }
      /^Suites:/ { for (i = 2; i <= NF; i++) if ($i !~ /security/) ok=1 }
      /^$/ { if (ok && uri != "") { print uri; exit } uri=""; ok=0 }
      END { if (ok && uri != "") print uri }
    ' "$f"
  done
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] || continue
    awk '$1 == "deb" && $0 !~ /security/ { for (i = 2; i <= NF; i++) if ($i ~ /^[a-z]+:\/\//) { print $i; exit } }' "$f"
  done
}

uri=$(archive_uri | grep -i debian | head -n 1 || true)
[ -n "$uri" ] || uri=$(archive_uri | head -n 1 || true)
if [ -z "$uri" ]; then
  echo "fetch-minizip: no Debian archive URI found in the machine's apt sources" >&2
  exit 1
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/lists/partial" "$work/cache/archives/partial" "$work/etc/sources.list.d" "$work/src"
printf 'deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] %s trixie main\n' "$uri" \
  > "$work/etc/sources.list"

apt_opts=(
  -o "Dir::Etc::SourceList=$work/etc/sources.list"
  -o "Dir::Etc::SourceParts=$work/etc/sources.list.d"
  -o "Dir::State::Lists=$work/lists"
  -o "Dir::Cache=$work/cache"
  -o "Debug::NoLocking=1"
  -o "APT::Sandbox::User=root"
)

echo "fetch-minizip: fetching zlib's source package (suite trixie)" >&2
apt-get "${apt_opts[@]}" -qq update

# Every Debian revision of zlib 1.3.1 in the suite shares one upstream tarball,
# and only that tarball is used. A mirror can list a revision whose files it
# does not yet (or no longer) serve, so each listed revision is tried, newest
# first, until one downloads.
versions=$(apt-cache "${apt_opts[@]}" showsrc zlib | awk '/^Version:/ { print $2 }' \
  | grep -F 'really1.3.1-' | sort -u -r -V)
if [ -z "$versions" ]; then
  echo "fetch-minizip: the suite lists no zlib 1.3.1 source package" >&2
  exit 1
fi
fetched=
for v in $versions; do
  rm -rf "$work/src" && mkdir -p "$work/src"
  if (cd "$work/src" && apt-get "${apt_opts[@]}" -qq source --download-only "zlib=$v"); then
    fetched=$v
    break
  fi
  echo "fetch-minizip: zlib $v is listed but could not be downloaded; trying an older revision" >&2
done
if [ -z "$fetched" ]; then
  echo "fetch-minizip: no revision of zlib 1.3.1 could be downloaded" >&2
  exit 1
fi

orig=$(ls "$work"/src/zlib_*.orig.tar.* | head -n 1)
# The upstream tarball every 1.3.1 revision is built from; a different one is not
# the zlib this library was checked against.
expected=60dd315c07f616887caa029408308a018ace66e3d142726a97db164b3b8f69fb
actual=$(sha256sum "$orig" | cut -d' ' -f1)
if [ "$actual" != "$expected" ]; then
  echo "fetch-minizip: $(basename "$orig") has SHA-256 $actual, expected $expected" >&2
  exit 1
fi
mkdir -p "$work/unpacked"
tar -xf "$orig" -C "$work/unpacked"
top=$(ls -d "$work"/unpacked/*/ | head -n 1)
if [ ! -f "$top/contrib/minizip/unzip.c" ]; then
  echo "fetch-minizip: $orig has no contrib/minizip" >&2
  exit 1
fi
mkdir -p "$(dirname "$dest")"
rm -rf "$dest"
mv "$top" "$dest"
echo "fetch-minizip: sources in $dest ($(basename "$orig"), from zlib $fetched)" >&2
