# SPDX-License-Identifier: Apache-2.0
"""The page, in a real Chromium, beside a lab with real clients and servers: what an operator does with it, on a desk and
on a phone, in the light and in the dark, by keyboard alone. One lab and one browser serve all tests.

With RAVO_SCREENSHOTS=FOLDER the pictures of the manual are written there.
"""

import os
from pathlib import Path

import pytest

pytest.importorskip("selenium", reason="python3-selenium is not installed")

from browser import Browser, axe_core  # noqa: E402
from conftest import open_lab  # noqa: E402
from ravolab import Dnsmasq, Kea, Udhcpc, craft  # noqa: E402
from ravolab.process import wait_for  # noqa: E402
from webbed import PASSWORD, Web  # noqa: E402

STRANGER = "02:00:00:00:00:77"
PAGES = ("overview", "interfaces", "clients", "clients/02:00:00:00:00:01", f"clients/{STRANGER}", "transactions",
         "configuration")
LOOKS = {"desk-light": (1280, False), "desk-dark": (1280, True), "phone-light": (375, False), "phone-dark": (375, True)}
SCREENSHOTS = os.environ.get("RAVO_SCREENSHOTS")


@pytest.fixture(scope="module")
def page_lab(tmp_path_factory):
    for lab in open_lab(name="page", servers=2):
        lab.add_server(Kea, host=1)
        lab.add_server(Dnsmasq, host=2)
        lab.relay = lab.start_relay(log_level="warning")
        lab.relay.configure("ip dhcp relay information option", "interface vlan 10", "ip dhcp relay address 192.0.2.11",
                            "exit", "ip dhcp relay")
        lab.web = Web(tmp_path_factory.mktemp("page"), lab.relay.socket, readers=["bob"]).start()
        try:
            yield lab
        finally:
            assert lab.web.stop() == 0, lab.web.log


@pytest.fixture(scope="module")
def browser():
    browser = Browser()
    yield browser
    browser.close()


@pytest.fixture(scope="module")
def axe():
    try:
        return axe_core()
    except Exception as reason:
        pytest.skip(f"axe-core cannot be had: {reason}")


def sign_in(browser, web, user="alice"):
    browser.driver.delete_all_cookies()
    browser.open(web.url)
    browser.ready("sign-in")
    browser.keys(user, "\t", PASSWORD, "\n")  # the first field has the focus
    browser.ready("overview")


def go(browser, page):
    browser.script("location.hash = arguments[0]", page)
    browser.ready(page.split("/")[0])


def traffic(lab):
    """Two leases, and requests that are dropped for having passed too many relays."""
    for port in (1, 2):
        lab.client(port).run(Udhcpc)
    for number in range(3):
        lab.client(1).send(craft.broadcast(craft.message("DISCOVER", mac=STRANGER, xid=number + 1, hops=9), STRANGER))


def drawn(browser):
    """How many areas the two charts of the overview have, and what their legends say."""
    return browser.script("return [document.querySelectorAll('.chart polygon').length, "
                          "[...document.querySelectorAll('.legend')].map(l => l.innerText).join(' ')]")


def untold(errors):
    """Without what the browser reports of a daemon that does not show its servers and advice yet."""
    return [line for line in errors if "501 (Not Implemented)" not in line]


@pytest.mark.parametrize("look", LOOKS)
def test_the_journey_by_keyboard(browser, page_lab, look):
    """Sign in, add a server, see it in the shell, see a duplicate refused, watch the graph, find a client: no mouse."""
    relay, number = page_lab.relay, 20 + list(LOOKS).index(look)
    browser.look(*LOOKS[look])
    sign_in(browser, page_lab.web)
    before = drawn(browser)
    traffic(page_lab)
    wait_for(lambda: drawn(browser)[1] != before[1], 20, "movement of the graph")
    assert "hop-limit" in drawn(browser)[1] and "discover" in drawn(browser)[1], drawn(browser)

    browser.tab_to("e.hash === '#interfaces'")
    assert browser.focus_shows()
    browser.keys("\n")
    browser.ready("interfaces")
    server = f"192.0.2.{number}"
    browser.tab_to("e.getAttribute('aria-label') === 'Address of a server to add to vlan10'")
    browser.keys(server, "\n")
    browser.sees(f"{server} is a server of vlan10 now.")
    assert f" {server} " in relay.sh("show ip dhcp relay")
    browser.errors()
    browser.tab_to("e.getAttribute('aria-label') === 'Address of a server to add to vlan10'")
    browser.keys(server, "\n")
    browser.sees("DHCP relay server exitsted already (302022)")
    assert len([line for line in browser.errors() if "409" in line]) == 1, "the refusal and nothing else"

    browser.tab_to(f"e.getAttribute('aria-label') === 'Remove server {server} from vlan10'")
    browser.keys("\n")
    browser.sees("will no longer be relayed")
    browser.tab_to("e.id === 'ask-yes'")
    browser.keys("\n")
    browser.sees(f"{server} is removed from vlan10.")
    assert server not in relay.sh("show ip dhcp relay")

    go(browser, "clients")
    browser.tab_to("e.id === 'search'")
    browser.keys("0000.0001")
    wait_for(lambda: STRANGER not in browser.text(), 20, "end of the other clients")
    browser.tab_to("e.hash === '#clients/02:00:00:00:00:01'")
    browser.keys("\n")
    browser.sees("The road of the ACK")
    browser.sees("delivered to the client")
    assert untold(browser.errors()) == []


@pytest.mark.parametrize("look", LOOKS)
def test_every_page_fits_and_is_for_everybody(browser, page_lab, axe, look):
    browser.look(*LOOKS[look])
    sign_in(browser, page_lab.web)
    traffic(page_lab)
    browser.errors()
    for page in PAGES:
        go(browser, page)
        if page == "overview":
            wait_for(lambda: "No message" not in browser.text() and "not asked yet" not in browser.text(), 30, "figures")
        assert browser.overflow() <= 0, page
        assert browser.serious(axe) == [], page
        if SCREENSHOTS:
            name = page.replace("/", "-").replace(":", "")
            browser.screenshot(Path(SCREENSHOTS) / f"{name}-{look}.png", whole="phone" in look)
    assert untold(browser.errors()) == []


def test_trust_saving_and_clearing(browser, page_lab):
    browser.look(1280)
    sign_in(browser, page_lab.web)
    go(browser, "interfaces")
    box = "[aria-label='Trust option 82 of clients on vlan20']"
    browser.find(box).click()
    browser.sees("vlan20 is trusted.")
    assert "vlan20" in page_lab.relay.sh("show ip dhcp relay information trusted-sources")
    go(browser, "configuration")
    browser.sees("+ ip dhcp relay information trusted")
    browser.find("#save").click()
    browser.sees("Nothing: what is in force is what is saved.")
    assert "trusted" in page_lab.relay.startup_file.read_text()
    go(browser, "interfaces")
    browser.find("[aria-label='Clear servers and trust of vlan20']").click()
    browser.find("#ask-yes").click()
    browser.sees("vlan20 is cleared.")
    assert "vlan20" not in page_lab.relay.sh("show ip dhcp relay information trusted-sources")


def test_a_reader_sees_no_changes(browser, page_lab):
    browser.look(1280)
    sign_in(browser, page_lab.web, "bob")
    go(browser, "interfaces")
    browser.sees("vlan10")
    assert browser.script("return [...document.querySelectorAll('main button, main form, main input:not([disabled])')]"
                          ".map(e => e.id)") == ["search"]


def test_the_page_says_that_the_relay_is_gone_and_comes_back(browser, page_lab):
    browser.look(1280)
    sign_in(browser, page_lab.web)
    browser.sees("Relaying is on")
    page_lab.relay.stop()
    browser.sees("The relay does not answer")
    page_lab.relay.start()
    wait_for(lambda: "The relay does not answer" not in browser.text(), 30, "return of the page")
    browser.sees("Relaying is on")
    browser.errors()


def test_texts_of_clients_stay_texts(browser, page_lab):
    """What clients send can be no markup, and what is typed no command."""
    browser.look(1280)
    sign_in(browser, page_lab.web)
    go(browser, "interfaces")
    browser.find("#search").send_keys("<img src=x onerror=alert(1)>")
    browser.sees("No interface fits.")
    assert browser.script("return document.querySelectorAll('main img').length") == 0
    browser.open(page_lab.web.url + "#clients/%3Cimg%20src%3Dx%3E")
    browser.sees("no hardware address")
    browser.errors()
