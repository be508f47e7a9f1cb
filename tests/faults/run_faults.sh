#!/usr/bin/env bash
# Developer tool, not run by CI: plants the faults of faults.json one at a time and
# reports which the test suite catches. See run_faults.py for the arguments.
exec /usr/bin/python3 "$(dirname "${BASH_SOURCE[0]}")/run_faults.py" "$@"
