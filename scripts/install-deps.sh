#!/usr/bin/env bash
# Installs, from Debian packages, what the machine lacks for one purpose.
# Safe to run again; needs root (or sudo) only when something is missing.
#   install-deps.sh            building the library and korvel-lock, and the
#                              demonstration (the manual page needs groff)
#   install-deps.sh test       that, and the tests, benchmarks, formatting,
#                              clang-tidy and the Debian packages' checks
#   install-deps.sh multihost  the multi-host stage (namespaces, an SFTP
#                              server, sshfs, a clock skewer)
#   install-deps.sh glusterfs  the GlusterFS stage (namespaces, the servers
#                              and the FUSE client, a clock skewer)
set -euo pipefail

packages=(cmake ninja-build g++ pkg-config libboost-thread-dev groff-base)
case "${1:-}" in
  test)
    packages+=(libgtest-dev libgmock-dev libbenchmark-dev clang-format clang-tidy
               dpkg-dev lintian  # dpkg-dev and lintian: the Debian packages
               ccache)           # the faults of scripts/mutants.sh, rebuilt
    ;;
  multihost) packages=(iproute2 openssh-server sshfs libfaketime) ;;
  glusterfs) packages=(iproute2 glusterfs-server glusterfs-client libfaketime) ;;
esac
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
