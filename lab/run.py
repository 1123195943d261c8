#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The tour behind `make run`: a lab, a relay, real clients and real servers, and what happens between them.

On a terminal it ends in a ravosh prompt inside the lab. Leaving the prompt, an interruption or an error
removes everything again.
"""

import os
import sys
import time

from ravolab import LabError, cleanup, namespace
from ravolab.relay import BUILD
from ravolab.tour import Tour


def refuse(reason):
    print(f"ravo: {reason}", file=sys.stderr)
    return 1


def main():
    if not os.path.exists("/etc/debian_version"):
        return refuse("the lab runs on Debian 12; this machine is not a Debian one")
    if os.geteuid() != 0:
        return refuse("the lab needs root, for network namespaces and raw sockets: sudo make run")
    reason = namespace.unavailable()
    if reason:
        return refuse(f"the lab needs network namespaces, and this process may make none: {reason}")
    for program in ("ravod", "ravosh", "ravo-web", "ravo-snmp"):
        if not (BUILD / program).exists():
            return refuse(f"{BUILD / program} is not built yet: make build")
    cleanup.on_signals()
    started = time.monotonic()
    try:
        Tour(started, keep_page=bool(os.environ.get("PAGE"))).run()
    except KeyboardInterrupt:
        print("\nravo: interrupted; the lab is removed", file=sys.stderr)
        return 130
    except LabError as error:
        return refuse(error)
    except BrokenPipeError:
        # The reader of the tour has gone; so that the interpreter does not try to flush to it again.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
