#!/usr/bin/env bash
# Installs the Debian packages named as arguments that are not installed yet
# (apt-get update first; sudo when not root).
set -u
missing=()
for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
        missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "Installing: ${missing[*]}"
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
$sudo_cmd apt-get update -q || exit 1
DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -q "${missing[@]}"
