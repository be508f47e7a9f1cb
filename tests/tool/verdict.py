"""The ending every check script shares: one FAIL line per problem, or one ok line."""


def verdict(problems, ok_line, prefix=""):
    """Prints the problems (or ok_line when there are none); the script's exit code."""
    for problem in problems:
        print(f"FAIL: {prefix}{problem}")
    if not problems:
        print(f"ok: {ok_line}")
    return 1 if problems else 0
