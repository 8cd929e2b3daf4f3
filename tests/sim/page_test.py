#!/usr/bin/env python3
"""The simulator's live page in headless Chromium, driven through its DevTools protocol.

A page opened before an edit made through tondrel-mcp shows the new clip and the request
without a reload; its request bodies and fault controls work. The figure printed, how long
the timeline took to redraw after the change, is measured, never asserted.

Usage: tests/sim/page_test.py BUILD_DIR          the test, against BUILD_DIR's binaries
       tests/sim/page_test.py --screenshot URL FILE   a picture of a running simulator's page
Without Chromium it fails under CI=true, and elsewhere says so in one line and passes.
"""
import json
import os
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

LIMIT = 120  # seconds for everything: a browser that hangs fails the test, never hangs it


class Browser:
    """Headless Chromium speaking DevTools on descriptors 3 (commands in) and 4 (answers out),
    one JSON message per NUL, with its profile and home inside `folder`."""

    def __init__(self, binary, folder):
        commands_in, self.commands = os.pipe()
        self.answers, answers_out = os.pipe()
        flags = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
                 '--disable-background-networking', '--disable-component-update', '--disable-sync',
                 '--no-default-browser-check', '--hide-scrollbars', '--mute-audio', '--window-size=1280,900',
                 '--remote-debugging-pipe', f'--user-data-dir={folder}/profile', 'about:blank']
        home = {'HOME': folder, 'XDG_CONFIG_HOME': f'{folder}/config', 'XDG_CACHE_HOME': f'{folder}/cache'}
        launch = 'commands=$1 answers=$2; shift 2; exec "$@" 3<&"$commands" 4>&"$answers"'
        with open(f'{folder}/chromium.log', 'wb') as log:
            self.process = subprocess.Popen(
                ['/bin/sh', '-c', launch, 'sh', str(commands_in), str(answers_out), binary, *flags],
                pass_fds=(commands_in, answers_out), stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                env={**os.environ, **home}, start_new_session=True)
        os.close(commands_in)
        os.close(answers_out)
        self.pending = b''
        self.last_id = 0

    def call(self, method, params=None, session=None, wait=10):
        self.last_id += 1
        message = {'id': self.last_id, 'method': method, 'params': params or {}}
        if session:
            message['sessionId'] = session
        os.write(self.commands, json.dumps(message).encode() + b'\0')
        deadline = time.monotonic() + wait
        while True:
            while b'\0' in self.pending:
                line, self.pending = self.pending.split(b'\0', 1)
                answer = json.loads(line)
                if answer.get('id') == self.last_id:
                    if 'error' in answer:
                        raise RuntimeError(f'{method}: {answer["error"]}')
                    return answer['result']
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self.answers], [], [], left)[0]:
                raise TimeoutError(f'Chromium did not answer {method} within {wait} s')
            chunk = os.read(self.answers, 1 << 20)
            if not chunk:
                raise RuntimeError('Chromium closed its DevTools pipe')
            self.pending += chunk

    def open(self, url):
        target = self.call('Target.createTarget', {'url': url})['targetId']
        return self.call('Target.attachToTarget', {'targetId': target, 'flatten': True})['sessionId']

    def evaluate(self, session, expression):
        result = self.call('Runtime.evaluate', {'expression': expression, 'returnByValue': True}, session)
        return result['result'].get('value')

    def wait_for(self, session, expression, seconds, what):
        deadline = time.monotonic() + seconds
        while not self.evaluate(session, expression):
            if time.monotonic() > deadline:
                raise AssertionError(f'the page did not show {what} within {seconds} s')
            time.sleep(0.02)

    def close(self):
        """Ends Chromium by its pid: asked first, then told, then killed with what it started."""
        try:
            self.call('Browser.close', wait=5)
        except Exception:
            pass
        for stop in (None, signal.SIGTERM, signal.SIGKILL):
            if stop:
                try:
                    os.kill(self.process.pid, stop)
                except ProcessLookupError:
                    pass
            try:
                self.process.wait(5)
                break
            except subprocess.TimeoutExpired:
                continue
        try:
            os.killpg(self.process.pid, signal.SIGKILL)  # helpers left behind, in its own group
        except (ProcessLookupError, PermissionError):
            pass
        os.close(self.commands)
        os.close(self.answers)


def chromium():
    names = ('chromium', 'chromium-browser', 'google-chrome', '/Applications/Google Chrome.app/Contents/MacOS/Google Chrome')
    found = next(filter(None, map(shutil.which, names)), None)
    if not found and os.environ.get('CI') == 'true':
        sys.exit('page test: no Chromium to run (scripts/install-deps test installs it)')
    return found


def start_simulator(build, folder, port=None):
    """The simulator on `port` or a free one, with its log in `folder`; answers the process and its port."""
    for _ in range(8):
        if not port:
            with socket.socket() as probe:
                probe.bind(('127.0.0.1', 0))
                port = probe.getsockname()[1]
        with open(f'{folder}/sim.log', 'wb') as log:
            sim = subprocess.Popen([f'{build}/sim/tondrel-editor-sim', '--port', str(port), '--seed', '7'],
                                   stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        for _ in range(100):
            try:
                urllib.request.urlopen(f'http://127.0.0.1:{port}/live.json', timeout=1).read()
                return sim, port
            except OSError:
                if sim.poll() is not None:
                    break
                time.sleep(0.05)
        sim.kill()
        sim.wait()
        time.sleep(0.2)
    raise RuntimeError('the simulator did not start')


def tool_call(mcp, tool, arguments):
    line = {'jsonrpc': '2.0', 'id': 1, 'method': 'tools/call', 'params': {'name': tool, 'arguments': arguments}}
    mcp.stdin.write(json.dumps(line) + '\n')
    mcp.stdin.flush()
    result = json.loads(mcp.stdout.readline())['result']
    assert not result['isError'], result
    return json.loads(result['content'][0]['text'])


def test(build, binary, folder):
    sim, port = start_simulator(build, folder)
    mcp = browser = None
    try:
        tone = f'{folder}/tone.wav'
        subprocess.run([f'{build}/sim/tondrel-editor-sim', '--write-test-tone', tone], check=True)
        browser = Browser(binary, folder)
        page = browser.open(f'http://127.0.0.1:{port}/')
        browser.wait_for(page, "document.body.dataset.live === '1'", 10, 'its stream open')
        browser.evaluate(page, "window.tondrelMarker = 'set before the edit'")

        mcp = subprocess.Popen([f'{build}/tondrel-mcp'], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                               env={**os.environ, 'TONDREL_API_PORT': str(port)})
        clip = tool_call(mcp, 'tondrel_import', {'path': tone})['clip']
        shown = (f"window.tondrelMarker === 'set before the edit' && "
                 f"!!document.querySelector('#tracks [data-clip=\"{clip}\"]') && "
                 f"!!document.querySelector('#log tr[data-method=\"POST\"][data-target=\"/v1/import\"]')")
        browser.wait_for(page, shown, 10, 'the new clip and its request, without a reload')
        browser.wait_for(page, 'document.body.dataset.redrawMs', 10, 'the timeline redrawn')
        redraw = browser.evaluate(page, 'document.body.dataset.redrawMs')

        browser.evaluate(page, "document.querySelector('#log tr[data-target=\"/v1/import\"]').click()")
        browser.wait_for(page, "document.querySelector('#log pre.request-body')?.textContent.includes('tone.wav')",
                         10, "the request's body")

        set_faults = "document.getElementById('fault-text').value = 'status500/every=2';" \
                     "document.getElementById('fault-apply').click()"
        browser.evaluate(page, set_faults)
        browser.wait_for(page, "document.getElementById('faults').dataset.text === 'status500/every=2'", 10,
                         'the faults it set')
        live = json.load(urllib.request.urlopen(f'http://127.0.0.1:{port}/live.json', timeout=5))
        assert live['faults']['text'] == 'status500/every=2', live['faults']
        browser.evaluate(page, "document.getElementById('fault-clear').click()")
        browser.wait_for(page, "document.getElementById('faults').dataset.text === ''", 10, 'the faults cleared')

        sim.kill()
        sim.wait()
        browser.wait_for(page, "document.body.dataset.live === '0'", 10, 'the simulator gone')
        sim, _ = start_simulator(build, folder, port)
        browser.wait_for(page, "document.body.dataset.live === '1' && window.tondrelMarker && "
                               "!document.querySelector('#log tr.request')", 10, 'the restarted simulator')
        print(f'page test: passed; the timeline was redrawn {redraw} ms after the change')
    finally:
        if browser:
            browser.close()
        if mcp:
            mcp.kill()
            mcp.wait()
        sim.kill()
        sim.wait()


def screenshot(binary, folder, url, file):
    browser = Browser(binary, folder)
    try:
        page = browser.open(url)
        browser.wait_for(page, "document.body.dataset.live === '1' && document.getElementById('timeline').complete",
                         10, 'its state')
        time.sleep(0.5)
        picture = browser.call('Page.captureScreenshot', {'format': 'png', 'captureBeyondViewport': True}, page)
        with open(file, 'wb') as out:
            out.write(__import__('base64').b64decode(picture['data']))
    finally:
        browser.close()


def main():
    binary = chromium()
    if not binary:
        print('page test: skipped, no Chromium installed (scripts/install-deps test installs it)')
        return

    def too_long(*_):
        raise TimeoutError(f'page test: not done within {LIMIT} s')
    signal.signal(signal.SIGALRM, too_long)
    signal.alarm(LIMIT)
    folder = tempfile.mkdtemp(prefix='tondrel-page-test-')
    try:
        if sys.argv[1] == '--screenshot':
            screenshot(binary, folder, sys.argv[2], sys.argv[3])
        else:
            test(sys.argv[1], binary, folder)
    finally:
        signal.alarm(0)
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == '__main__':
    main()
