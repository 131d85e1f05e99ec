#!/usr/bin/env bash
# Installs, from Debian's archive, whatever this project needs to build and test
# on a fresh Debian 12 machine, and fetches minizip's source (zlib 1.3.1) into
# third_party/zlib-src: the one step that needs the network, so that
# configuring and building need none. Does nothing when everything is already
# present.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  zlib1g-dev libisal-dev libwxgtk3.2-dev gettext
  libssl-dev libbz2-dev liblzma-dev libzstd-dev bzip2 xz-utils zstd
  googletest libgtest-dev libgmock-dev libzip-dev
  zip unzip libarchive-tools p7zip-full python3
  dpkg-dev file patch
  clang libclang-rt-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}" >&2
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# minizip's source (skipped when third_party/zlib-src holds it already).
bash "$(dirname "$0")/fetch-minizip.sh"
