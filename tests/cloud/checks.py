"""Check lines of the cloud tests: each check prints ok or FAIL, and failures are kept for the exit status."""

failures = []


def check(ok, what):
    print(("   ok   " if ok else "   FAIL ") + what, flush=True)
    if not ok:
        failures.append(what)
    return ok


def heading(text):
    print(f"\n== {text}", flush=True)
