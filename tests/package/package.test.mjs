// Checks what scripts/package made, as a user, a host and a registry would meet it:
// the Debian package's files and dependencies, the MCP Bundle unpacked and started
// the way a host starts it, and the registry entry against the bundle it names.
// TONDREL_PACKAGE_DIR holds the packages; TONDREL_MCPB is the pinned mcpb CLI.
import { test, before, after } from "node:test";
import assert from "node:assert/strict";
import { execFileSync, spawnSync } from "node:child_process";
import { createHash } from "node:crypto";
import { mkdtempSync, readFileSync, readdirSync, rmSync } from "node:fs";
import { createServer } from "node:net";
import { tmpdir } from "node:os";
import { basename, join } from "node:path";

const dir = process.env.TONDREL_PACKAGE_DIR;
const mcpb = process.env.TONDREL_MCPB;
const onDebian = process.platform === "linux";
const files = readdirSync(dir);
const debFile = files.find((f) => f.endsWith(".deb"));
const bundleFile = files.find((f) => f.endsWith(".mcpb"));
let scratch, debRoot, bundleRoot, manifest, registry;

const run = (command, args) => execFileSync(command, args, { encoding: "utf8" });

// Sends JSON-RPC requests on one line each and returns the answers by id.
function talk(binary, requests, env = {}) {
  const base = { ...process.env };
  delete base.LD_LIBRARY_PATH;
  delete base.DYLD_LIBRARY_PATH;
  const input = requests.map((r, i) => JSON.stringify({ jsonrpc: "2.0", id: i + 1, ...r }) + "\n").join("");
  const done = spawnSync(binary, [], { input, env: { ...base, ...env }, encoding: "utf8", timeout: 30000 });
  assert.equal(done.status, 0, `${binary} exited with ${done.status}: ${done.stderr}`);
  const answers = done.stdout.trim().split("\n").map((line) => JSON.parse(line));
  return answers.sort((a, b) => a.id - b.id);
}

const initialize = { method: "initialize", params: { protocolVersion: "2025-06-18" } };
const listTools = { method: "tools/list" };

// A port with nothing listening on it, as a user might set by mistake.
async function closedPort() {
  const server = createServer();
  await new Promise((resolve) => server.listen(0, "127.0.0.1", resolve));
  const { port } = server.address();
  await new Promise((resolve) => server.close(resolve));
  return port;
}

before(() => {
  scratch = mkdtempSync(join(tmpdir(), "tondrel-package-"));
  bundleRoot = join(scratch, "bundle");
  run(mcpb, ["unpack", join(dir, bundleFile), bundleRoot]);
  manifest = JSON.parse(readFileSync(join(bundleRoot, "manifest.json"), "utf8"));
  registry = JSON.parse(readFileSync(join(dir, "server.json"), "utf8"));
  if (onDebian) {
    debRoot = join(scratch, "root");
    run("dpkg-deb", ["-x", join(dir, debFile), debRoot]);
  }
});

after(() => rmSync(scratch, { recursive: true, force: true }));

const debField = (name) => run("dpkg-deb", ["-f", join(dir, debFile), name]).trim();
const depends = () => debField("Depends").split(",").map((d) => d.trim());

test("the Debian package holds the executables and the README, nothing else", { skip: !onDebian }, () => {
  const listed = run("dpkg-deb", ["-c", join(dir, debFile)])
    .split("\n")
    .filter((line) => line.startsWith("-"))
    .map((line) => line.split(/\s+/).pop());
  const required = ["./usr/bin/tondrel-mcp", "./usr/share/doc/tondrel-mcp/README.md"];
  const allowed = [...required, "./usr/bin/tondrel-editor-sim"];
  for (const path of required) assert.ok(listed.includes(path), `${path} missing from ${debFile}`);
  for (const path of listed) assert.ok(allowed.includes(path), `${path} should not be in ${debFile}`);
});

test("the Debian package is named and versioned after the server it holds", { skip: !onDebian }, () => {
  const [init] = talk(join(debRoot, "usr/bin/tondrel-mcp"), [initialize]);
  const version = init.result.serverInfo.version;
  const arch = run("dpkg", ["--print-architecture"]).trim();
  for (const [what, actual, expected] of [
    ["file name", debFile, `tondrel-mcp_${version}_${arch}.deb`],
    ["Package", debField("Package"), "tondrel-mcp"],
    ["Version", debField("Version"), version],
    ["Architecture", debField("Architecture"), arch],
  ]) {
    assert.equal(actual, expected, what);
  }
});

test("the Debian package depends on libcurl, which the server opens at run time", { skip: !onDebian }, () => {
  assert.ok(depends().includes("libcurl4 | libcurl3-gnutls"), debField("Depends"));
});

test("the Debian package depends on the package of every library its executables link", { skip: !onDebian }, () => {
  const declared = depends().flatMap((d) => d.split("|").map((alt) => alt.trim().split(/[\s(]/)[0]));
  for (const exe of readdirSync(join(debRoot, "usr/bin"))) {
    const binary = join(debRoot, "usr/bin", exe);
    const needed = run("objdump", ["-p", binary])
      .split("\n")
      .filter((line) => /^\s*NEEDED\s/.test(line))
      .map((line) => line.trim().split(/\s+/)[1]);
    assert.ok(needed.length > 0, `${exe} links nothing?`);
    const resolved = Object.fromEntries(
      run("ldd", [binary])
        .split("\n")
        .map((line) => line.trim().match(/^(\S+) => (\S+)/))
        .filter(Boolean)
        .map((m) => [m[1], m[2]]),
    );
    for (const library of needed) {
      assert.ok(resolved[library], `${exe}: ${library} not found on this system`);
      // The multiarch directory keeps other architectures' copies of the same library out.
      const multiarch = basename(join(resolved[library], ".."));
      const owners = run("dpkg", ["-S", `*/${multiarch}/${library}`])
        .split("\n")
        .filter(Boolean)
        .flatMap((line) => line.split(":")[0].split(", "));
      assert.ok(
        owners.some((p) => declared.includes(p)),
        `${exe} links ${library} from ${owners.join(" or ")}, which Depends does not name: ${debField("Depends")}`,
      );
    }
  }
});

test("the bundle's manifest passes mcpb validate", () => {
  run(mcpb, ["validate", join(bundleRoot, "manifest.json")]);
});

test("the bundle is named and described after the server it holds", () => {
  const [init] = talk(join(bundleRoot, manifest.server.entry_point), [initialize]);
  const version = init.result.serverInfo.version;
  const arch = { x64: "x86_64", arm64: "arm64" }[process.arch];
  for (const [what, actual, expected] of [
    ["file name", bundleFile, `tondrel-mcp-${version}-${process.platform}-${arch}.mcpb`],
    ["version", manifest.version, version],
    ["server type", manifest.server.type, "binary"],
    ["platforms", manifest.compatibility.platforms, [process.platform]],
    ["port setting", manifest.server.mcp_config.env, { TONDREL_API_PORT: "${user_config.api_port}" }],
    ["default port", manifest.user_config.api_port.default, 17910],
  ]) {
    assert.deepEqual(actual, expected, what);
  }
});

test("the bundle's tool list is the one the server answers", () => {
  const [, list] = talk(join(bundleRoot, manifest.server.entry_point), [initialize, listTools]);
  const served = list.result.tools.map((t) => ({ name: t.name, description: t.description.split("\n")[0] }));
  assert.equal(served.length, 16);
  assert.deepEqual(manifest.tools, served);
});

test("the bundled server starts as a host starts it and uses the port the user set", async () => {
  const port = await closedPort();
  const config = manifest.server.mcp_config;
  const expand = (text) =>
    text.replaceAll("${__dirname}", bundleRoot).replaceAll("${user_config.api_port}", String(port));
  const env = Object.fromEntries(Object.entries(config.env).map(([k, v]) => [k, expand(v)]));
  if (process.platform === "linux") {
    // Whatever is not part of every system must come from the bundle itself.
    const base = /^(linux-vdso|ld-linux|libc|libm|libdl|libpthread|librt|libgcc_s|libstdc\+\+)[.-]/;
    for (const line of run("ldd", [expand(config.command)]).split("\n").filter((l) => l.includes("=>"))) {
      const [name, path] = line.trim().split(/\s+=>\s+/);
      assert.ok(!path.startsWith("not found"), line);
      if (!base.test(name)) assert.ok(path.startsWith(bundleRoot), `${name} comes from outside the bundle: ${line}`);
    }
  }
  const [, call] = talk(expand(config.command), [initialize, { method: "tools/call", params: { name: "tondrel_state", arguments: {} } }], env);
  assert.equal(call.result.isError, true);
  assert.match(call.result.content[0].text, new RegExp(`not reachable at http://127\\.0\\.0\\.1:${port} `));
});

test("server.json describes the bundle that was packed, under the same facts", () => {
  const sha256 = createHash("sha256").update(readFileSync(join(dir, bundleFile))).digest("hex");
  const [pkg] = registry.packages;
  const variable = pkg.environmentVariables.find((v) => v.name === "TONDREL_API_PORT");
  const repo = new URL(registry.repository.url).pathname.slice(1);
  for (const [what, actual, expected] of [
    ["name", registry.name, `io.github.${repo}`],
    ["version", registry.version, manifest.version],
    ["description", registry.description, manifest.description],
    ["packages", registry.packages.length, 1],
    ["registryType", pkg.registryType, "mcpb"],
    ["identifier", pkg.identifier, `${registry.repository.url}/releases/download/v${manifest.version}/${bundleFile}`],
    ["fileSha256", pkg.fileSha256, sha256],
    ["transport", pkg.transport, { type: "stdio" }],
    ["port default", variable?.default, String(manifest.user_config.api_port.default)],
    ["port required", variable?.isRequired, false],
  ]) {
    assert.deepEqual(actual, expected, what);
  }
  // The registry's own limits on the fields it requires.
  assert.match(registry.name, /^[a-zA-Z0-9.-]+\/[a-zA-Z0-9._-]+$/);
  assert.ok(registry.description.length >= 1 && registry.description.length <= 100, "description 1 to 100 characters");
  assert.match(registry.$schema, /^https:\/\/static\.modelcontextprotocol\.io\/schemas\/[\d-]+\/server\.schema\.json$/);
});

test("the Homebrew formula builds the version and repository the packages name", () => {
  const formula = readFileSync(new URL("../../packaging/homebrew/tondrel-mcp.rb", import.meta.url), "utf8");
  const field = (name) => formula.match(new RegExp(`^\\s*${name} "([^"]*)"`, "m"))?.[1];
  const repository = registry.repository.url;
  for (const [what, actual, expected] of [
    ["desc", field("desc"), manifest.description],
    ["homepage", field("homepage"), repository],
    ["url", field("url"), `${repository}/archive/refs/tags/v${manifest.version}.tar.gz`],
  ]) {
    assert.equal(actual, expected, what);
  }
});
