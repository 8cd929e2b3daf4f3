// The built tondrel-mcp driven by the official MCP SDK client, as an agent's host drives it,
// against a recording stand-in editor on loopback.
import { after, before, describe, test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import http from 'node:http';
import { createInterface } from 'node:readline';
import { fileURLToPath } from 'node:url';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { AjvJsonSchemaValidator } from '@modelcontextprotocol/sdk/validation/ajv';
import { LATEST_PROTOCOL_VERSION, McpError } from '@modelcontextprotocol/sdk/types.js';

const binary = process.env.TONDREL_MCP_BINARY || fileURLToPath(new URL('../../build/test/tondrel-mcp', import.meta.url));
const OK = { status: 200, type: 'application/json', body: '{"ok":true}' };

// Records every request and answers with whatever the current test has set.
async function standInEditor() {
  const requests = [];
  let reply = OK;
  const server = http.createServer(async (req, res) => {
    const chunks = [];
    for await (const chunk of req) chunks.push(chunk);
    requests.push({ method: req.method, url: req.url, headers: req.headers, body: Buffer.concat(chunks).toString() });
    res.writeHead(reply.status, { 'content-type': reply.type }).end(reply.body);
  });
  server.listen(0, '127.0.0.1');
  await once(server, 'listening');
  return {
    port: server.address().port,
    requests,
    answer(next) { reply = next; },
    close: () => new Promise((done) => { server.closeAllConnections(); server.close(done); }),
  };
}

// A loopback port that was just free: nothing answers there.
async function closedPort() {
  const server = http.createServer().listen(0, '127.0.0.1');
  await once(server, 'listening');
  const { port } = server.address();
  await new Promise((done) => server.close(done));
  return port;
}

// Connects as a host whose SDK offers protocolVersion; remembers what the client settled on.
async function connect(port, protocolVersion = LATEST_PROTOCOL_VERSION) {
  const transport = new StdioClientTransport({
    command: binary,
    env: { PATH: process.env.PATH ?? '', TONDREL_API_PORT: String(port) },
    stderr: 'pipe',
  });
  let stderr = '';
  transport.stderr.on('data', (chunk) => { stderr += chunk; });
  const send = transport.send.bind(transport);
  transport.send = (message, options) => send(message.method === 'initialize'
    ? { ...message, params: { ...message.params, protocolVersion } } : message, options);
  const session = { transport, errors: [], stderr: () => stderr };
  transport.setProtocolVersion = (version) => { session.negotiated = version; };
  const client = new Client({ name: 'interop-test', version: '1.0.0' });
  client.onerror = (error) => session.errors.push(error);
  await client.connect(transport);
  return Object.assign(session, { client });
}

// Every tool with arguments its schema accepts, and the one request the editor must get.
const calls = [
  ['tondrel_state', {}, 'GET', '/v1/state'],
  ['tondrel_document', {}, 'GET', '/v1/document'],
  ['tondrel_help', {}, 'GET', '/v1/help'],
  ['tondrel_edit', { ops: [{ op: 'track.add', name: 'Vox é/1' }, { op: 'tempo.set', bpm: 96.5 }], label: 'Add vox' },
    'POST', '/v1/edit', { ops: [{ op: 'track.add', name: 'Vox é/1' }, { op: 'tempo.set', bpm: 96.5 }], label: 'Add vox' }],
  ['tondrel_replace_document', { document: { tracks: [{ name: 'Bass', clips: [] }], tempo: 120 }, save: true },
    'PUT', '/v1/document?save=1', { tracks: [{ name: 'Bass', clips: [] }], tempo: 120 }],
  ['tondrel_open', { path: '/Users/me/Song.tondrel' }, 'POST', '/v1/open', { path: '/Users/me/Song.tondrel' }],
  ['tondrel_import', { path: '/a.wav', track: 1, at: 2.5 }, 'POST', '/v1/import', { path: '/a.wav', track: 1, at: 2.5 }],
  ['tondrel_export', { path: '/tmp/out.mp3', format: 'mp3', bitRateKbps: 320, range: [0, 1.5], stems: false },
    'POST', '/v1/export', { path: '/tmp/out.mp3', format: 'mp3', bitRateKbps: 320, range: [0, 1.5], stems: false }],
  ['tondrel_transport', { action: 'seek', time: 12.5 }, 'POST', '/v1/transport', { action: 'seek', time: 12.5 }],
  ['tondrel_select', { clips: ['C1', 'C2'], fit: true }, 'POST', '/v1/select', { clips: ['C1', 'C2'], fit: true }],
  ['tondrel_undo', {}, 'POST', '/v1/undo'],
  ['tondrel_redo', {}, 'POST', '/v1/redo'],
  ['tondrel_save', {}, 'POST', '/v1/save', {}],
  ['tondrel_snapshot', {}, 'GET', '/v1/snapshot.png'],
  ['tondrel_waveform', { path: '/Users/me/My Song & Co+1.wav', bins: 512 }, 'GET',
    '/v1/waveform?path=/Users/me/My%20Song%20%26%20Co%2B1.wav&bins=512'],
  ['tondrel_silences', { path: '/a.wav', thresholdDB: -50, minDuration: 0.3 }, 'GET',
    '/v1/silences?path=/a.wav&thresholdDB=-50&minDuration=0.3'],
];

const textResult = (text, isError) => ({ content: [{ type: 'text', text }], isError });

describe('tondrel-mcp through the MCP SDK client', () => {
  let editor;
  let session;
  before(async () => {
    editor = await standInEditor();
    session = await connect(editor.port);
  });
  after(async () => {
    await session.client.close();
    await editor.close();
    assert.deepEqual(session.errors, []);
    assert.equal(session.stderr(), '');
  });

  test('handshakes with the newest and the oldest protocol version', async () => {
    for (const version of [LATEST_PROTOCOL_VERSION, '2024-11-05']) {
      const { client, negotiated } = version === LATEST_PROTOCOL_VERSION ? session : await connect(editor.port, version);
      assert.equal(negotiated, version);
      assert.deepEqual(client.getServerVersion(), { name: 'tondrel', version: '0.9.0' });
      assert.deepEqual(client.getServerCapabilities(), { tools: {} });
      assert.match(client.getInstructions(), /^Controls the Tondrel macOS audio editor.*tondrel_state first/);
      assert.deepEqual(await client.ping(), {});
      if (client !== session.client) await client.close();
    }
  });

  test('lists the sixteen tools in catalogue order, each schema taking its valid call', async () => {
    const { tools } = await session.client.listTools();
    assert.deepEqual(tools.map((t) => t.name), calls.map(([name]) => name));
    const validator = new AjvJsonSchemaValidator();
    for (const [i, [name, args]] of calls.entries()) {
      assert.equal(tools[i].inputSchema.type, 'object', name);
      assert.ok(tools[i].description.length > 0, name);
      const { valid, errorMessage } = validator.getValidator(tools[i].inputSchema)(args);
      assert.ok(valid, `${name}: ${errorMessage}`);
    }
  });

  test('each tool call sends its one request and passes the answer on as text', async () => {
    editor.answer(OK);
    for (const [name, args, method, url, body] of calls) {
      const sent = editor.requests.length;
      assert.deepEqual(await session.client.callTool({ name, arguments: args }), textResult(OK.body, false), name);
      assert.equal(editor.requests.length, sent + 1, name);
      const request = editor.requests.at(-1);
      assert.deepEqual([request.method, request.url], [method, url], name);
      assert.deepEqual(request.body === '' ? undefined : JSON.parse(request.body), body, name);
      assert.equal(request.headers['content-type'], body && 'application/json; charset=utf-8', name);
    }
  });

  test('a snapshot comes back as a PNG image with its caption', async () => {
    const png = Buffer.concat([Buffer.from('89504e470d0a1a0a', 'hex'), Buffer.from(Array.from({ length: 65536 }, (_, i) => (i * 7919) & 255))]);
    editor.answer({ status: 200, type: 'image/png', body: png });
    const result = await session.client.callTool({ name: 'tondrel_snapshot', arguments: {} });
    assert.deepEqual(result, {
      content: [
        { type: 'image', data: png.toString('base64'), mimeType: 'image/png' },
        { type: 'text', text: 'Snapshot of the Tondrel window.' },
      ],
    });
    assert.ok(Buffer.from(result.content[0].data, 'base64').equals(png));
  });

  // The SDK's client reads at most 10 MiB per message (STDIO_DEFAULT_MAX_BUFFER_SIZE) unless the host
  // raises maxBufferSize: with our 155 bytes around the base64 text, that is a 7,864,203-byte PNG.
  test('the largest snapshot the SDK reads by default arrives intact', async () => {
    const png = Buffer.alloc(7864203, 0xa5);
    png.write('\x89PNG\r\n\x1a\n', 'latin1');
    editor.answer({ status: 200, type: 'image/png', body: png });
    const result = await session.client.callTool({ name: 'tondrel_snapshot', arguments: {} });
    assert.ok(Buffer.from(result.content[0].data, 'base64').equals(png));
  });

  test('editor errors come back as error results carrying the editor\'s body', async () => {
    for (const status of [404, 500]) {
      editor.answer({ status, type: 'application/json', body: '{"error":"no such clip"}' });
      const result = await session.client.callTool({ name: 'tondrel_edit', arguments: { ops: [] } });
      assert.deepEqual(result, textResult('{"error":"no such clip"}', true), String(status));
    }
  });

  test('an unknown tool is a protocol error and never reaches the editor', async () => {
    const sent = editor.requests.length;
    await assert.rejects(session.client.callTool({ name: 'tondrel_nope', arguments: {} }), (error) => {
      assert.ok(error instanceof McpError);
      assert.equal(error.code, -32602);
      assert.match(error.message, /unknown tool: tondrel_nope/);
      return true;
    });
    assert.equal(editor.requests.length, sent);
  });
});

test('with the editor down, a call says so and asks for Tondrel to be launched', async () => {
  const port = await closedPort();
  const { client, errors } = await connect(port);
  try {
    assert.deepEqual(await client.callTool({ name: 'tondrel_state', arguments: {} }), textResult(
      `Tondrel is not reachable at http://127.0.0.1:${port} \u2014 launch /Applications/Tondrel.app and retry.`, true));
  } finally {
    await client.close();
  }
  assert.deepEqual(errors, []);
});

test('a host probing with its own discovery method gets -32601 and can then initialize', async () => {
  const child = spawn(binary, [], { env: { TONDREL_API_PORT: String(await closedPort()) }, stdio: ['pipe', 'pipe', 'pipe'] });
  let stderr = '';
  child.stderr.on('data', (chunk) => { stderr += chunk; });
  const lines = createInterface({ input: child.stdout })[Symbol.asyncIterator]();
  const ask = async (message) => {
    child.stdin.write(`${JSON.stringify(message)}\n`);
    return JSON.parse((await lines.next()).value);
  };
  for (const id of ['probe-1', 0, 42]) {
    assert.deepEqual(await ask({ jsonrpc: '2.0', id, method: 'server/discover' }),
      { jsonrpc: '2.0', id, error: { code: -32601, message: 'method not found: server/discover' } });
  }
  const init = await ask({ jsonrpc: '2.0', id: 1, method: 'initialize',
    params: { protocolVersion: LATEST_PROTOCOL_VERSION, capabilities: {}, clientInfo: { name: 'raw', version: '0' } } });
  assert.equal(init.id, 1);
  assert.equal(init.result.protocolVersion, LATEST_PROTOCOL_VERSION);
  assert.deepEqual(init.result.serverInfo, { name: 'tondrel', version: '0.9.0' });
  child.stdin.end();
  const [code] = await once(child, 'exit');
  assert.equal(code, 0);
  assert.equal(stderr, '');
});
