# Runs the Python test modules of this folder inside sarvode:
#
#     sarvode tests/python/run_tests.py [NAME_OR_PATTERN]
#
# NAME_OR_PATTERN
# selects the modules: a module name ("test_maps"), a file name
# ("test_maps.py"), a short name ("maps") or a glob pattern ("test_m*.py").
# Without it every test_*.py module runs.
#
# The last line printed is "N passed, M failed" (", K skipped" is appended
# when tests were skipped). Failures, errors and unexpected successes count as
# failed; tests marked @unittest.expectedFailure that do fail count as passed.
# When anything failed the script exits with status 1.

import os
import sys
import unittest

folder = os.path.dirname(os.path.abspath(sys.argv[0]))


def pattern_of(argument):
    """The discovery pattern for the command-line argument."""
    if any(ch in argument for ch in "*?["):
        return argument if argument.endswith(".py") else argument + ".py"
    name = argument[:-3] if argument.endswith(".py") else argument
    if not name.startswith("test_") and os.path.isfile(os.path.join(folder, "test_" + name + ".py")):
        name = "test_" + name
    return name + ".py"


arguments = sys.argv[1:]
if len(arguments) > 1:
    raise ValueError("usage: sarvode run_tests.py [NAME_OR_PATTERN]")
pattern = pattern_of(arguments[0]) if arguments else "test_*.py"

if folder not in sys.path:
    sys.path.insert(0, folder)
suite = unittest.defaultTestLoader.discover(folder, pattern=pattern, top_level_dir=folder)
if suite.countTestCases() == 0:
    raise LookupError(f"No tests match {pattern!r} in {folder}.")

result = unittest.TextTestRunner(stream=sys.stderr, verbosity=2).run(suite)

failed = len(result.failures) + len(result.errors) + len(result.unexpectedSuccesses)
skipped = len(result.skipped)
passed = result.testsRun - failed - skipped
summary = f"{passed} passed, {failed} failed"
if skipped > 0:
    summary += f", {skipped} skipped"
sys.stderr.flush()
print(summary, flush=True)
if failed:
    sys.exit(1)
