#!/usr/bin/env bash
# Installs the Debian 12 packages needed to build and test sarvode.
#
# Only packages that are missing are installed: when everything is present the
# script exits after a single dpkg-query call.  Runs apt-get directly as root,
# otherwise through sudo.  Never prompts (suitable for CI, no stdin needed).
#
# Usage: scripts/install-deps.sh [--dry-run] [--force]
#   --dry-run  only print what would be installed
#   --force    run apt-get update + install for all packages even if present
set -euo pipefail

PACKAGES=(
  build-essential
  g++
  cmake
  make
  pkg-config
  git
  libgtest-dev
  libgmock-dev
  googletest
  libbenchmark-dev
  libgmp-dev
  libfmt-dev
  libcli11-dev
  python3-dev
  python3-venv
  libpython3.11-testsuite
  python3-mypy
  pybind11-dev
  clang-14
  libclang-rt-14-dev
  tmux
)

dry_run=0
force=0
for arg in "$@"; do
  case "$arg" in
    --dry-run|-n) dry_run=1 ;;
    --force) force=1 ;;
    -h|--help) sed -n '2,12p' "$0"; exit 0 ;;
    *) echo "install-deps.sh: unknown argument '$arg'" >&2; exit 2 ;;
  esac
done

if ! command -v dpkg-query >/dev/null 2>&1 || ! command -v apt-get >/dev/null 2>&1; then
  echo "install-deps.sh: dpkg/apt-get not found; this script supports Debian 12 only" >&2
  exit 1
fi

# One dpkg-query call for all packages; unknown packages only produce stderr.
declare -A installed=()
while read -r name status; do
  [[ "$status" == ii* ]] && installed["$name"]=1
done < <(dpkg-query -W -f='${Package} ${db:Status-Abbrev}\n' "${PACKAGES[@]}" 2>/dev/null || true)

missing=()
for pkg in "${PACKAGES[@]}"; do
  if [[ $force -eq 1 || -z "${installed[$pkg]:-}" ]]; then
    missing+=("$pkg")
  fi
done

if [[ ${#missing[@]} -eq 0 ]]; then
  echo "install-deps.sh: all ${#PACKAGES[@]} packages already installed"
  exit 0
fi

echo "install-deps.sh: installing: ${missing[*]}"
if [[ $dry_run -eq 1 ]]; then
  exit 0
fi

if [[ $(id -u) -eq 0 ]]; then
  SUDO=()
elif command -v sudo >/dev/null 2>&1; then
  SUDO=(sudo -E)
else
  echo "install-deps.sh: not root and sudo is not available; install as root: ${missing[*]}" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update </dev/null
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y --no-install-recommends "${missing[@]}" </dev/null
echo "install-deps.sh: done"
