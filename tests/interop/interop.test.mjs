// The built tondrel-mcp driven by the official MCP SDK client, as an agent's host drives it,
// against a stand-in editor on loopback. What each tool sends the editor is tested in C++;
// this proves the SDK and the server agree on the protocol and on the shape of each kind of answer.
import { after, before, describe, test } from 'node:test';
import assert from 'node:assert/strict';
import { once } from 'node:events';
import http from 'node:http';
import { fileURLToPath } from 'node:url';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { AjvJsonSchemaValidator } from '@modelcontextprotocol/sdk/validation/ajv';
import { LATEST_PROTOCOL_VERSION } from '@modelcontextprotocol/sdk/types.js';

const binary = process.env.TONDREL_MCP_BINARY ||
  fileURLToPath(new URL('../../build/test/tondrel-mcp', import.meta.url));
const textResult = (text, isError) => ({ content: [{ type: 'text', text }], isError });

// Listens on a free loopback port; with no handler it closes again, leaving a port nothing answers on.
async function listen(handler) {
  const server = http.createServer(handler).listen(0, '127.0.0.1');
  await once(server, 'listening');
  const { port } = server.address();
  if (!handler) await new Promise((done) => server.close(done));
  return { server, port };
}

// Connects as a host whose SDK offers protocolVersion; remembers what the client settled on.
async function connect(port, protocolVersion = LATEST_PROTOCOL_VERSION) {
  const transport = new StdioClientTransport({ command: binary, env: { TONDREL_API_PORT: `${port}` }, stderr: 'pipe' });
  const session = { errors: [], stderr: '' };
  transport.stderr.on('data', (chunk) => { session.stderr += chunk; });
  const send = transport.send.bind(transport);
  transport.send = (message, options) => send(message.method === 'initialize'
    ? { ...message, params: { ...message.params, protocolVersion } } : message, options);
  transport.setProtocolVersion = (version) => { session.negotiated = version; };
  session.client = new Client({ name: 'interop-test', version: '1.0.0' });
  session.client.onerror = (error) => session.errors.push(error);
  await session.client.connect(transport);
  return session;
}

describe('tondrel-mcp through the MCP SDK client', () => {
  const requests = [];
  let reply, editor, port, down, sessions;
  const call = (name, args = {}) => sessions[0].client.callTool({ name, arguments: args });
  before(async () => {
    ({ server: editor, port } = await listen((req, res) => {
      requests.push(`${req.method} ${req.url}`);
      req.resume().on('end', () => res.writeHead(reply.status, { 'content-type': reply.type }).end(reply.body));
    }));
    ({ port: down } = await listen());
    sessions = [await connect(port), await connect(port, '2024-11-05'), await connect(down)];
  });
  after(async () => {
    for (const { client } of sessions) await client.close();
    editor.close().closeAllConnections();
    for (const { errors, stderr } of sessions) assert.deepEqual([errors, stderr], [[], '']);
  });

  test('handshakes with the newest and the oldest version, lists tools the SDK takes, answers a ping', async () => {
    for (const [i, version] of [LATEST_PROTOCOL_VERSION, '2024-11-05'].entries()) {
      const { client, negotiated } = sessions[i];
      assert.deepEqual([negotiated, client.getServerVersion(), client.getServerCapabilities(), await client.ping()],
        [version, { name: 'tondrel', version: '0.9.0' }, { tools: {} }, {}]);
      const { tools } = await client.listTools();
      assert.equal(tools.length, 16);
      const validator = new AjvJsonSchemaValidator();
      for (const { name, inputSchema } of tools) assert.doesNotThrow(() => validator.getValidator(inputSchema), name);
    }
  });

  test('calls answer as text, image or error results (404, 500, editor down); unknown tools are refused', async () => {
    const png = Buffer.from(Array.from({ length: 65536 }, (_, i) => (i * 7919) & 255));
    png.write('89504e470d0a1a0a', 'hex');
    reply = { status: 200, type: 'image/png', body: png };
    assert.deepEqual(await call('tondrel_snapshot'), { content: [{ type: 'image', data: png.toString('base64'),
      mimeType: 'image/png' }, { type: 'text', text: 'Snapshot of the Tondrel window.' }] });
    for (const [status, isError] of [[200, false], [404, true], [500, true]]) {
      reply = { status, type: 'application/json', body: `{"status":${status}}` };
      const sent = requests.length;
      assert.deepEqual(await call('tondrel_edit', { ops: [] }), textResult(reply.body, isError), `${status}`);
      assert.deepEqual(requests.slice(sent), ['POST /v1/edit']);
    }
    assert.deepEqual(await sessions[2].client.callTool({ name: 'tondrel_state', arguments: {} }), textResult(
      `Tondrel is not reachable at http://127.0.0.1:${down} \u2014 launch /Applications/Tondrel.app and retry.`, true));
    const sent = requests.length;
    await assert.rejects(call('tondrel_nope'), { code: -32602, message: /unknown tool: tondrel_nope/ });
    assert.equal(requests.length, sent, 'an unknown tool never reaches the editor');
  });

});
