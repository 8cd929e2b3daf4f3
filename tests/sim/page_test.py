#!/usr/bin/env python3
# The simulator's live page in headless Chromium, driven through its DevTools protocol: a
# page opened before an edit made through tondrel-mcp shows the new clip and the request
# without a reload; its request bodies and fault controls work, and it finds a restarted
# simulator by itself. It prints, never asserts, how long the timeline took to redraw.
# Usage: tests/sim/page_test.py BUILD_DIR               the test, with BUILD_DIR's binaries
#        tests/sim/page_test.py --screenshot URL FILE   a picture of a running simulator's page
# Without Chromium it fails under CI=true, and elsewhere says so in one line and passes.
import base64, json, os, select, shutil, signal, socket, subprocess, sys, tempfile, time, urllib.request

LIMIT = 120  # seconds for everything: a browser that hangs fails the test, never hangs it
BROWSERS = ('chromium', 'chromium-browser', 'google-chrome',
            '/Applications/Google Chrome.app/Contents/MacOS/Google Chrome')


class Browser:
    # Headless Chromium reading DevTools commands on descriptor 3 and answering on 4, one JSON
    # message per NUL, with its profile and home inside `folder`.
    def __init__(self, binary, folder):
        commands_in, self.commands = os.pipe()
        self.answers, answers_out = os.pipe()
        flags = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
                 '--disable-background-networking', '--disable-component-update', '--disable-sync',
                 '--hide-scrollbars', '--window-size=1280,900', '--remote-debugging-pipe',
                 f'--user-data-dir={folder}/profile']
        home = {'HOME': folder, 'XDG_CONFIG_HOME': f'{folder}/config', 'XDG_CACHE_HOME': f'{folder}/cache'}
        launch = 'commands=$1 answers=$2; shift 2; exec "$@" 3<&"$commands" 4>&"$answers"'
        with open(f'{folder}/chromium.log', 'wb') as log:
            self.process = subprocess.Popen(
                ['/bin/sh', '-c', launch, 'sh', str(commands_in), str(answers_out), binary, *flags],
                pass_fds=(commands_in, answers_out), stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                env={**os.environ, **home}, start_new_session=True)
        os.close(commands_in)
        os.close(answers_out)
        self.pending, self.last_id = b'', 0

    def call(self, method, params=None, session=None, wait=10):
        self.last_id += 1
        message = {'id': self.last_id, 'method': method, 'params': params or {}, 'sessionId': session}
        os.write(self.commands, json.dumps({k: v for k, v in message.items() if v is not None}).encode() + b'\0')
        deadline = time.monotonic() + wait
        while True:
            while b'\0' in self.pending:
                line, self.pending = self.pending.split(b'\0', 1)
                answer = json.loads(line)
                if answer.get('id') == self.last_id:
                    if 'error' in answer:
                        raise RuntimeError(f'{method}: {answer["error"]}')
                    return answer['result']
            if not select.select([self.answers], [], [], max(0, deadline - time.monotonic()))[0]:
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

    def wait_for(self, session, expression, what, seconds=10):
        deadline = time.monotonic() + seconds
        while not self.evaluate(session, expression):
            if time.monotonic() > deadline:
                raise AssertionError(f'the page did not show {what} within {seconds} s')
            time.sleep(0.02)

    def close(self):
        # Asked first, then killed by its pid, and any helper left in its process group with it.
        try:
            self.call('Browser.close', wait=5)
            self.process.wait(5)
        except Exception:
            self.process.kill()
            self.process.wait(5)
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        os.close(self.commands)
        os.close(self.answers)


def start_simulator(build, folder, port=None):
    # On `port`, or on a free one (another program may take it first: then another).
    for _ in range(5):
        if not port:
            with socket.socket() as probe:
                probe.bind(('127.0.0.1', 0))
                port = probe.getsockname()[1]
        with open(f'{folder}/sim.log', 'ab') as log:
            sim = subprocess.Popen([f'{build}/sim/tondrel-editor-sim', '--port', str(port)],
                                   stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        for _ in range(100):
            try:
                urllib.request.urlopen(f'http://127.0.0.1:{port}/live.json', timeout=1).read()
                return sim, port
            except OSError:
                time.sleep(0.05)
        sim.kill()
        sim.wait()
    raise RuntimeError('the simulator did not start')


def test(build, binary, folder):
    sim, port = start_simulator(build, folder)
    mcp = browser = None
    try:
        tone = f'{folder}/tone.wav'
        subprocess.run([f'{build}/sim/tondrel-editor-sim', '--write-test-tone', tone], check=True)
        browser = Browser(binary, folder)
        page = browser.open(f'http://127.0.0.1:{port}/')
        browser.wait_for(page, "document.body.dataset.live === '1'", 'its stream open')
        browser.evaluate(page, "window.tondrelMarker = 'set before the edit'")

        mcp = subprocess.Popen([f'{build}/tondrel-mcp'], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                               env={**os.environ, 'TONDREL_API_PORT': str(port)})
        call = {'jsonrpc': '2.0', 'id': 1, 'method': 'tools/call',
                'params': {'name': 'tondrel_import', 'arguments': {'path': tone}}}
        mcp.stdin.write(json.dumps(call) + '\n')
        mcp.stdin.flush()
        clip = json.loads(json.loads(mcp.stdout.readline())['result']['content'][0]['text'])['clip']
        browser.wait_for(page, f"window.tondrelMarker === 'set before the edit' && "
                               f"!!document.querySelector('#tracks [data-clip=\"{clip}\"]') && "
                               f"!!document.querySelector('#log tr[data-method=POST][data-target=\"/v1/import\"]')",
                         'the new clip and its request, without a reload')
        browser.wait_for(page, 'document.body.dataset.redrawMs', 'the timeline redrawn')
        redraw = browser.evaluate(page, 'document.body.dataset.redrawMs')

        browser.evaluate(page, "document.querySelector('#log tr[data-target=\"/v1/import\"]').click()")
        browser.wait_for(page, "document.querySelector('#log pre.request-body')?.textContent.includes('tone.wav')",
                         "the request's body")
        browser.evaluate(page, "document.getElementById('fault-text').value = 'status500/every=2';"
                               "document.getElementById('fault-apply').click()")
        browser.wait_for(page, "document.getElementById('faults').dataset.text === 'status500/every=2'",
                         'the faults it set')
        browser.evaluate(page, "document.getElementById('fault-clear').click()")
        browser.wait_for(page, "document.getElementById('faults').dataset.text === ''", 'the faults cleared')

        sim.kill()
        sim.wait()
        browser.wait_for(page, "document.body.dataset.live === '0'", 'the simulator gone')
        sim, _ = start_simulator(build, folder, port)
        browser.wait_for(page, "document.body.dataset.live === '1' && window.tondrelMarker && "
                               "!document.querySelector('#log tr.request')", 'the restarted simulator')
        print(f'page test: passed; the timeline was redrawn {redraw} ms after the change')
    finally:
        signal.alarm(0)  # the cleaning up is bounded by itself, and must not be cut short
        for process in filter(None, (mcp, sim)):
            process.kill()
            process.wait()
        if browser:
            browser.close()


def screenshot(binary, folder, url, file):
    browser = Browser(binary, folder)
    try:
        page = browser.open(url)
        browser.wait_for(page, "document.body.dataset.live === '1' && timeline.complete", 'its state')
        picture = browser.call('Page.captureScreenshot', {'captureBeyondViewport': True}, page)['data']
        open(file, 'wb').write(base64.b64decode(picture))
    finally:
        signal.alarm(0)
        browser.close()


def main():
    binary = next(filter(None, map(shutil.which, BROWSERS)), None)
    if not binary:
        if os.environ.get('CI') == 'true':
            sys.exit('page test: no Chromium to run it with (scripts/install-deps test installs it)')
        return print('page test: skipped, no Chromium installed (scripts/install-deps test installs it)')

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
