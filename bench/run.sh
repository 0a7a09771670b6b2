#!/usr/bin/env bash
# Bulk transfers and short connections through tandem, and in the same run through ssh -L and stunnel. See --help.
# Run it by ./dev bench, which installs and builds what it needs.
set -euo pipefail
exec python3 -B "$(dirname "${BASH_SOURCE[0]}")/compare.py" "$@"
