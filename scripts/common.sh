# Sourced by the scripts here: the repository as working directory, the preset and its folder.
# shellcheck shell=bash
# shellcheck disable=SC2034  # read by the scripts that source this
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit
preset=${TALVIK_PRESET:-release}
build_dir=build
[[ $preset == release ]] || build_dir=build-$preset
