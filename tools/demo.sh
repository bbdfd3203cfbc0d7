#!/usr/bin/env bash
# Starts the demo installation. Until the server runs headless this prints the version line.
set -euo pipefail
build=${1:-build}
"$build/bin/quillbase" --version 2>/dev/null || "$build/bin/quillbase"
