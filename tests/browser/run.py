#!/usr/bin/env python3
"""The page of the sandbox in a real browser: `tarvo sandbox`, a `tarvo replay` to it, and what people see of both.

usage: run.py TARVO_PROGRAM SOURCE_DIR [PICTURES [TRACE]]; 77 where no browser is installed. With PICTURES the screenshots
are kept there. With TRACE nothing is tried: that trip alone is replayed and pictured as sandbox.png. The one in
docs/images is of a person's week and is renewed by
  tarvo simulate --from 48.1,11.5 --to 48.13,11.58 --profile week --seed 7 >week.gpx
  tests/browser/run.py build/release/bin/tarvo . docs/images week.gpx
"""
import base64
import http.client
import json
import os
import re
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
import browser

HOSTILE = "<img src=x onerror=\"window.hurt=1\"><script>window.hurt=1</script>"


class Sandbox:
    """`tarvo sandbox` and what a unit and a host say to it."""

    def __init__(self, program, home, port=0):
        self.process = subprocess.Popen([program, "sandbox", "--port", str(port), "--data", home], stdout=subprocess.PIPE, text=True)
        for line in self.process.stdout:
            found = re.search(r"http://127\.0\.0\.1:(\d+)/", line)
            if found:
                break
        assert found, "the sandbox tells no address"
        self.port, self.origin = int(found[1]), found[0].rstrip("/")

    def close(self):
        self.process.terminate()
        assert self.process.wait(30) == 0, "the sandbox does not end well"

    def replay(self, options, trace, speed):
        return subprocess.Popen([options.program, "replay", trace, "--backend", self.origin + "/api", "--channel", self.origin,
                                 "--api-key", "demo-key", "--api-secret", "demo-secret", "--mode", "12", "--speed", speed,
                                 "--home", f"{options.home}/unit", "--json"], stdout=subprocess.PIPE, text=True)

    def ask(self, method, path, body=None, who=("demo-key", "demo-secret"), type="application/json"):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        login = base64.b64encode(":".join(who).encode()).decode()
        text = body if body is None or isinstance(body, (str, bytes)) else json.dumps(body)
        connection.request(method, path, text, {"Content-Type": type, "Authorization": "Basic " + login})
        answer = connection.getresponse()
        content = answer.read()
        connection.close()
        return answer.status, json.loads(content) if content else None

    def state(self):
        return self.ask("GET", "/live/state")[1]

    def register(self, name):
        device = {"mobileid": name, "mobileos": "ios", "phone_description": name, "sensors": ""}
        status, answer = self.ask("POST", "/api/v1/demo/users", device)
        assert status == 200, answer
        return answer["results"][0]["uuid"], answer["results"][0]["secretkey"]

    def post(self, unit, numbers):
        rows = [{"unique_position_id_for_app": str(n), "useruuid": unit[0], "app_name": "ios:test", "provider": "sls",
                 "date_localisation": f"2024-06-15 10:00:{n % 60:02} +0000", "date_mobile": f"2024-06-15 10:00:{n % 60:02} +0000",
                 "lon": str(11.5 + n * 1e-4), "lat": "48.001", "acc": "10", "speed": "3", "bearing": "0", "alt": "500",
                 "service_action": "loc_changed", "terramesh_data_version": "1"} for n in numbers]
        return self.ask("POST", "/api/v1/demo/positions", rows, unit)[0]


def text_of(selector):
    return f"document.querySelector({json.dumps(selector)}).textContent"


def click(page, selector):
    page.run(f"document.querySelector({json.dumps(selector)}).click()")


def loads(page, sandbox, _):
    page.open(sandbox.origin + "/")
    page.wait("document.querySelector('#link')?.dataset.state === 'live'")
    page.wait("tarvo.map.rings.length > 1000")
    header = page.run("fetch('/').then((answer) => answer.headers.get('Content-Security-Policy'))")
    assert "script-src 'self';" in header and "unsafe" not in header, header


def grows_while_a_unit_drives(page, sandbox, options):
    options.replay = sandbox.replay(options, f"{options.source}/apps/demo/demo-trip.gpx", "300")
    size = 0
    for _ in range(3):
        size = page.wait(f"tarvo.track.size > {size} && tarvo.track.size")
    assert options.replay.poll() is None, "the track has grown only after the drive"


def sends_a_push(page, *_):
    click(page, "#tab-host")
    page.wait("!document.querySelector('form.push [type=submit]').disabled")
    page.run("document.querySelector('form.push').requestSubmit()")
    page.wait("document.querySelector('#panel-host .chip.received')")
    page.wait("document.querySelector('#panel-host ol time')")
    click(page, "#tab-health")
    page.wait("/Stored\\d+/.test(document.querySelector('#panel-health').textContent)")


def switches_a_fault_on(page, *_):
    page.run("""(() => {
        const { kind, endpoint, status } = document.querySelector('#fault').elements;
        [kind.value, endpoint.value] = ['status', 'positions'];
        kind.dispatchEvent(new Event('change'));
        status.value = '503';
        document.querySelector('#fault').requestSubmit();
    })()""")
    page.wait(f"{text_of('#faults-list')}.includes('positions, status 503')")
    page.wait("[...document.querySelectorAll('#requests-rows .faulty')].filter((row) => /POST positions.*503.*status/.test(row.textContent)).length > 1")
    click(page, "#faults-clear")
    page.wait(f"{text_of('#faults-list')}.includes('no fault is switched on')")


def holds_what_the_unit_has_sent(page, sandbox, options):
    summary = json.loads(options.replay.communicate(timeout=120)[0])
    assert options.replay.returncode == 0, summary
    unit = sandbox.state()["units"][0]
    page.wait(f"tarvo.track.size === {unit['positions']}")
    assert unit["missing"] == 0 and unit["positions"] == summary["acknowledged"], (unit, summary)
    for name, what, key in (("trips", "trips", "trips"), ("places", "places", "pois")):
        there = sandbox.ask("GET", f"/live/units/{unit['uuid']}/{what}")[1][key]
        page.wait(f"document.querySelectorAll('#panel-{name} .rows button').length === {len(there)}")
    page.wait(f"{text_of('#panel-ledger')}.includes('0 to {unit['positions'] - 1}: each number is here')")
    blue = page.run("""(() => {
        const { width, height } = tarvo.map.data._container;
        const pixels = tarvo.map.data._context.getImageData(0, 0, width, height).data;
        let count = 0;
        for (let i = 0; i < pixels.length; i += 4) count += pixels[i] === 0 && pixels[i + 1] === 114 && pixels[i + 2] === 178 && pixels[i + 3] === 255;
        return count;
    })()""")
    assert blue > 200, f"{blue} pixels of track"
    click(page, "#tab-trips")
    click(page, "#fit")
    page.picture(f"{options.pictures}/wide.png")


def shows_holes_and_repeats(page, sandbox, options):
    options.unit = sandbox.register("van")
    for numbers in (range(0, 10), range(20, 30), range(5, 10)):
        assert sandbox.post(options.unit, numbers) == 200
    page.wait(f"document.querySelector('[data-unit=\"{options.unit[0]}\"]')")
    click(page, f"[data-unit='{options.unit[0]}']")
    page.wait(f"{text_of('#panel-ledger')}.includes('10 positions missing of 0 to 29')")
    page.wait(f"{text_of('#panel-ledger')}.includes('5 numbers arrived more than once')")
    assert page.run("document.querySelectorAll('#unit-strip .hole').length") == 1


def shows_hostile_texts_as_they_are(page, sandbox, _):
    unit = sandbox.register(HOSTILE)
    assert sandbox.post(unit, range(3)) == 200
    page.wait(f"document.querySelector('[data-unit=\"{unit[0]}\"]')")
    click(page, f"[data-unit='{unit[0]}']")
    page.wait(f"{text_of('#unit-title')} === {json.dumps(HOSTILE)}")
    for what, body in (("told", {"what": HOSTILE}), ("health", {HOSTILE: HOSTILE, "gaps": [{"since": HOSTILE, "cause": HOSTILE}]})):
        click(page, "#tab-host" if what == "told" else "#tab-health")
        assert sandbox.ask("POST", f"/channel/{unit[0]}/{what}", body)[0] == 200
        page.wait("document.querySelector('#unit-panels').textContent.includes('<img src=x')")
    log = f"--boundary\r\nContent-Disposition: form-data; name=\"file\"; filename=\"<img src=x onerror=hurt=1>\"\r\n\r\n{HOSTILE}\r\n--boundary--\r\n"
    assert sandbox.ask("POST", "/api/v1/demo/uplog", log, unit, "multipart/form-data;boundary=boundary")[0] == 200
    click(page, "#tab-logs")
    page.wait(f"{text_of('#panel-logs')}.includes({json.dumps(HOSTILE)})")
    assert page.run("window.hurt === undefined && !document.querySelector('section img:not(.leaflet-tile), section script')")


def works_by_keyboard(page, *_):
    page.run("document.activeElement.blur(); scrollTo(0, 0)")
    seen = []
    while len(seen) < 80 and (not seen or seen[-1][0] != "BODY"):
        page.press("Tab", 9)
        seen.append(page.run("""(() => {
            const at = document.activeElement, style = getComputedStyle(at.id === 'map' ? at.parentNode : at), box = at.getBoundingClientRect();
            return [at.tagName, at.id || at.textContent.trim(), style.outlineStyle !== 'none' && parseFloat(style.outlineWidth) >= 2 && box.width > 0];
        })()"""))
    assert seen[0][1] == "Skip the map", seen[0]
    missing = {"map", "fit", "tab-logs", "requests-older"} - {name for _, name, _ in seen}
    assert not missing, f"not reached: {missing} of {seen}"
    unseen = [name for tag, name, shown in seen if not shown and tag not in ("BODY", "HTML")]
    assert not unseen, f"the focus does not show on {unseen}"
    page.run("document.querySelector('#tab-logs').focus()")
    page.press("ArrowRight", 39)
    assert page.run("document.activeElement.id") == "tab-trips" and page.run("!document.querySelector('#panel-trips').hidden")
    page.run("document.querySelector('#units-list li:first-child button').focus()")
    page.press("Enter", 13)
    page.wait("document.activeElement.getAttribute('aria-current') === 'true'")
    nodes = page.call("Accessibility.getFullAXTree")["nodes"]
    roles = ("button", "checkbox", "combobox", "textbox", "spinbutton", "searchbox", "link", "tab", "tabpanel", "region", "meter")
    nameless = [node for node in nodes if not node["ignored"] and node["role"]["value"] in roles and not node.get("name", {}).get("value")]
    assert not nameless, f"without a name: {nameless}"


def fits_a_phone(page, _, options):
    page.size(390, 844, phone=True)
    page.wait("document.documentElement.scrollWidth <= 390 && getComputedStyle(document.querySelector('nav')).display !== 'none'")
    small = page.run("""[...document.querySelectorAll('button, select, textarea, nav a, label:has([type=checkbox]), input:not([type=checkbox])')]
        .filter((one) => one.checkVisibility()).map((one) => [one.id || one.name || one.textContent, Math.round(one.getBoundingClientRect().height)])
        .filter(([, height]) => height < 44)""")
    assert not small, f"too small to touch: {small}"
    page.picture(f"{options.pictures}/narrow.png")
    page.size(1440, 900)


def is_readable_in_the_dark(page, _, options):
    contrast = """(() => {
        const paint = document.createElement('canvas').getContext('2d', { willReadFrequently: true });
        const light = (colour) => {
            paint.fillStyle = getComputedStyle(document.documentElement).getPropertyValue('--' + colour);
            paint.fillRect(0, 0, 1, 1);
            const part = [...paint.getImageData(0, 0, 1, 1).data].slice(0, 3).map((value) => value / 255)
                .map((value) => (value <= 0.03928 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4));
            return 0.2126 * part[0] + 0.7152 * part[1] + 0.0722 * part[2];
        };
        const ratio = (one, other) => (Math.max(light(one), light(other)) + 0.05) / (Math.min(light(one), light(other)) + 0.05);
        const texts = ['text', 'muted', 'accent', 'good', 'bad'].map((colour) => ratio(colour, 'panel'));
        const lines = ['track', 'trips', 'places', 'prediction'].map((colour) => ratio(colour, 'land') * 1.5);
        return [light('panel'), Math.min(...texts, ...lines)];
    })()"""
    for dark in (False, True):
        page.dark(dark)
        panel, least = page.run(contrast)
        assert (panel < 0.05) == dark and least >= 4.5, f"dark {dark}: panel {panel}, least contrast {least}"
        if dark:
            page.picture(f"{options.pictures}/dark.png")


def comes_back_after_a_break(page, sandbox, options):
    sandbox.close()
    page.wait("document.querySelector('#link').dataset.state === 'lost'")
    again = Sandbox(options.program, f"{options.home}/sandbox", sandbox.port)
    page.wait("document.querySelector('#link').dataset.state === 'live'")
    sandbox.process = again.process
    assert sandbox.post(options.unit, range(32, 40)) == 200
    click(page, f"[data-unit='{options.unit[0]}']")
    page.wait("tarvo.track.lastId === 39")


def is_pictured(page, sandbox, options):
    options.replay = sandbox.replay(options, sys.argv[4], "max")
    options.replay.communicate()
    page.wait(f"tarvo.track.size === {sandbox.state()['units'][0]['positions']}")
    page.open(sandbox.origin + "/")
    page.wait("['#panel-trips .rows', '#panel-places .rows', '#requests-rows tr', '#link[data-state=live]'].every((one) => document.querySelector(one))")
    page.wait("tarvo.track.size > 0 && tarvo.map.map.getZoom() > 8 && tarvo.map.content.prediction")
    page.picture(f"{options.pictures}/sandbox.png")


STEPS = (loads, grows_while_a_unit_drives, sends_a_push, switches_a_fault_on, holds_what_the_unit_has_sent, shows_holes_and_repeats,
         shows_hostile_texts_as_they_are, works_by_keyboard, fits_a_phone, is_readable_in_the_dark, comes_back_after_a_break)


def main():
    found = browser.find()
    if not found:
        print("skipped: no browser is installed")
        return 77
    options = type("Options", (), {"program": sys.argv[1], "source": sys.argv[2]})
    options.replay = None
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as options.home:  # a browser ends in its own time
        options.pictures = sys.argv[3] if len(sys.argv) > 3 else options.home
        sandbox = Sandbox(options.program, f"{options.home}/sandbox")
        page = browser.Browser(found, f"{options.home}/profile")
        try:
            page.size(1440, 900)
            for step in (loads, is_pictured) if len(sys.argv) > 4 else STEPS:
                step(page, sandbox, options)
                foreign = [url for url in page.addresses() if not url.startswith((sandbox.origin + "/", "data:", "about:"))]
                assert not foreign, f"asked elsewhere: {foreign}"
                if step is not comes_back_after_a_break:  # a connection that is refused is no fault of the page
                    assert not page.complaints(), page.complaints()
                print(f"{step.__name__.replace('_', ' ')}")
        finally:
            page.close()
            for process in filter(None, (options.replay, sandbox.process)):
                process.terminate()
                process.wait(30)
    return 0


if __name__ == "__main__":
    sys.exit(main())
