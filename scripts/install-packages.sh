#!/usr/bin/env bash
# Installs the build and test packages of scripts/packages.txt that are
# missing; with --update, refreshes the package lists and installs them all.
# Installing needs root; anyone else is told what to run.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
usage() { echo "usage: $0 [--update]"; }
update=no
for arg in "$@"; do
  case "$arg" in
    --update) update=yes ;;
    -h|--help) usage; exit 0 ;;
    *) echo "install-packages.sh: unknown argument $arg" >&2; usage >&2; exit 2 ;;
  esac
done

mapfile -t packages < <(grep -v '^\s*#' "$here/packages.txt" | grep -v '^\s*$')
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ "$update" = no ] && [ ${#missing[@]} -eq 0 ]; then
  echo "install-packages.sh: all ${#packages[@]} packages are installed"
  exit 0
fi
wanted=("${packages[@]}")
[ "$update" = yes ] || wanted=("${missing[@]}")
if [ "$(id -u)" -ne 0 ]; then
  echo "install-packages.sh: installing packages needs root; missing: ${missing[*]:-none}" >&2
  echo "run:  sudo $0${1:+ $*}" >&2
  echo "or:   sudo apt-get update && sudo apt-get install --no-install-recommends ${wanted[*]}" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
echo "install-packages.sh: refreshing the package lists"
apt-get update
echo "install-packages.sh: installing ${wanted[*]}"
apt-get install -y --no-install-recommends "${wanted[@]}"
