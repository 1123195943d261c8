# SPDX-License-Identifier: Apache-2.0
"""A message that ends the daemon: kept by the next one, which holds its port and serves all others."""

import contextlib
import json
import re
import signal
import subprocess
import time
from pathlib import Path

from documents import judge
from managed import Session
from ravolab.craft import broadcast, message
from ravolab.process import wait_for

CONFIGURATION = """ip dhcp relay
no ip dhcp relay information check
ip dhcp local-relay
ip dhcp local-relay vlan 10
interface vlan 10
 ip dhcp local-relay
exit
interface vlan 20
 ip dhcp relay address 192.0.2.200
exit
"""
# Without this the reply that ends the daemon would not reach it.
UNGUARDED = "[guard]\ncore_assertions = true\n"


def outcome(relay, port, word):
    return json.loads(relay.sh(f"show ip dhcp relay statistics port {port} | json"))["outcomes"][word]


def crashes(relay):
    return json.loads(relay.sh("show ip dhcp relay crashes | json"))["crashes"]


def attack(host):
    host.send(broadcast(message("OFFER", op=2, mac=host.mac, xid=0x6C6C), host.mac, sport=67))


def test_port_of_a_crash_is_held_and_others_are_served(bare_lab):
    attacker, good = bare_lab.client(1), bare_lab.client(3)
    relay = bare_lab.start_relay(startup_config=CONFIGURATION, switch_toml=UNGUARDED)
    attack(attacker)
    assert relay.process.wait() == -signal.SIGABRT
    relay.start()
    told = relay.wait_log(rf"crash: ravod died while it handled a message of client {attacker.mac} on VLAN 10, "
                          r"port 1/1, held for 10 s: (\S+)\n")
    read = subprocess.run(["tshark", "-n", "-r", told[1], "-T", "fields", "-e", "dhcp.id", "-e", "frame.comment"],
                          text=True, capture_output=True, check=True, timeout=60)
    assert read.stdout == "0x00006c6c\tthe daemon died while it handled this message\n"
    for _ in range(3):
        attack(attacker)
    good.send(broadcast(message("DISCOVER", mac=good.mac, xid=7), good.mac))
    wait_for(lambda: outcome(relay, "1/3", "relayed") == 1, 30, "request of another port")
    wait_for(lambda: outcome(relay, "1/1", "port-held") == 3, 30, "messages of the held port")
    [crash] = crashes(relay)
    judge("crashes", {"crashes": [crash]})
    assert (crash["client"], crash["vlan"], crash["port"], crash["cause"], crash["held_seconds"], crash["capture"]) == (
        attacker.mac, 10, "1/1", "SIGABRT", 10, told[1])
    relay.sh("clear ip dhcp relay crashes")
    assert crashes(relay) == [] and not Path(told[1]).exists()
    attack(attacker)
    assert relay.process.wait() == -signal.SIGABRT, "the port is not held any more"
    relay.start()
    assert [each["held_seconds"] for each in crashes(relay)] == [10]
    assert relay.stop() == 0
    assert len(re.findall("^crash: ", relay.log, re.M)) == 2


# Memory that is told to break: the next who wants some dies of it with the lock held, and whoever comes then waits.
BROKEN_MEMORY = """
#define _GNU_SOURCE
#include <signal.h>
#include <stddef.h>
#include <unistd.h>
extern void *__libc_malloc(size_t);
extern void *__libc_calloc(size_t, size_t);
extern void *__libc_realloc(void *, size_t);
extern void __libc_free(void *);
static volatile sig_atomic_t told, locked;
static void tell(int number) { (void)number; told = 1; }
__attribute__((constructor)) static void begin(void) { signal(SIGUSR1, tell); }
static void enter(void) {
    if (!told) return;
    while (locked) pause();
    locked = 1;
    *(volatile char *)16 = 0;
}
void *malloc(size_t size) { enter(); return __libc_malloc(size); }
void *calloc(size_t count, size_t size) { enter(); return __libc_calloc(count, size); }
void *realloc(void *memory, size_t size) { enter(); return __libc_realloc(memory, size); }
void free(void *memory) { enter(); __libc_free(memory); }
"""


def test_crash_inside_the_memory_is_reported_and_ends(bare_lab):
    """While a session watches the log, whose lines take memory as well."""
    library = Path(bare_lab.fresh_folder("broken")) / "memory.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-x", "c", "-", "-o", library], input=BROKEN_MEMORY, text=True, check=True,
                   timeout=60)
    library.parent.chmod(0o755)
    relay = bare_lab.start_relay(env={"LD_PRELOAD": str(library)})
    watching = Session(relay.socket)
    watching.run("terminal monitor")
    relay.process.send_signal(signal.SIGUSR1)
    begin = time.monotonic()
    with contextlib.suppress(OSError, AssertionError):
        watching.run("show version")  # takes memory
    assert relay.process.wait() == 1
    assert time.monotonic() - begin < 2
    report = relay.log[relay.log.index("RAVO Segmentation Fault!\n"):]
    assert re.fullmatch(r"RAVO Segmentation Fault!\nRAVO info.si_signo = 11\nRAVO info.si_errno = 0\n"
                        r"RAVO info.si_addr  = 0x10\n\n\n RAVO Obtained (\d+) stack frames.\n(?:RAVO: \S.*\n){1,20}", report)
    assert str(library) in report
