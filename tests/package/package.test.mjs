// Checks what scripts/package made, as a user, a host and a registry would meet it:
// the Debian packages' files, licence and dependencies, the MCP Bundle unpacked and
// started the way a host starts it, and the registry entry against the bundles it
// names. TONDREL_PACKAGE_DIR holds the packages; TONDREL_MCPB is the pinned mcpb CLI.
import { test, before, after } from "node:test";
import assert from "node:assert/strict";
import { execFileSync, spawnSync } from "node:child_process";
import { createHash } from "node:crypto";
import { copyFileSync, existsSync, mkdtempSync, readFileSync, readdirSync, rmSync, writeFileSync } from "node:fs";
import { createServer } from "node:net";
import { tmpdir } from "node:os";
import { basename, join } from "node:path";
import { fileURLToPath } from "node:url";

const dir = process.env.TONDREL_PACKAGE_DIR;
const mcpb = process.env.TONDREL_MCPB;
const onDebian = process.platform === "linux";
const files = readdirSync(dir);
const bundleFile = files.find((f) => f.endsWith(".mcpb"));
// The two Debian packages: the bridge, and the simulator with libraries of its own.
const debs = {
  bridge: { name: "tondrel-mcp", exe: "tondrel-mcp" },
  simulator: { name: "tondrel-editor-sim", exe: "tondrel-editor-sim" },
};
for (const deb of Object.values(debs)) deb.file = files.find((f) => f.startsWith(`${deb.name}_`) && f.endsWith(".deb"));
let scratch, bundleRoot, manifest, registry;

const repoFile = (path) => new URL(`../../${path}`, import.meta.url);
const license = readFileSync(repoFile("LICENSE"), "utf8");
const run = (command, args, options = {}) => execFileSync(command, args, { encoding: "utf8", ...options });

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
    for (const deb of Object.values(debs)) {
      assert.ok(deb.file, `no ${deb.name} package in ${dir}`);
      deb.root = join(scratch, deb.name);
      run("dpkg-deb", ["-x", join(dir, deb.file), deb.root]);
    }
  }
});

after(() => rmSync(scratch, { recursive: true, force: true }));

const debField = (deb, name) => run("dpkg-deb", ["-f", join(dir, deb.file), name]).trim();
// Each alternative of each Depends entry, as a package name.
const dependsOn = (deb) =>
  debField(deb, "Depends")
    .split(",")
    .flatMap((d) => d.split("|").map((alt) => alt.trim().split(/[\s(]/)[0]));

// The packages that own the libraries an executable links, by library.
function linkedPackages(binary) {
  const needed = run("objdump", ["-p", binary])
    .split("\n")
    .filter((line) => /^\s*NEEDED\s/.test(line))
    .map((line) => line.trim().split(/\s+/)[1]);
  assert.ok(needed.length > 0, `${binary} links nothing?`);
  const resolved = Object.fromEntries(
    run("ldd", [binary])
      .split("\n")
      .map((line) => line.trim().match(/^(\S+) => (\S+)/))
      .filter(Boolean)
      .map((m) => [m[1], m[2]]),
  );
  return Object.fromEntries(
    needed.map((library) => {
      assert.ok(resolved[library], `${binary}: ${library} not found on this system`);
      // The multiarch directory keeps other architectures' copies of the same library out.
      const multiarch = basename(join(resolved[library], ".."));
      const owners = run("dpkg", ["-S", `*/${multiarch}/${library}`])
        .split("\n")
        .filter(Boolean)
        .flatMap((line) => line.split(":")[0].split(", "));
      return [library, owners];
    }),
  );
}

test("each Debian package holds its executable, README and copyright, nothing else", { skip: !onDebian }, () => {
  for (const deb of Object.values(debs)) {
    const listed = run("dpkg-deb", ["-c", join(dir, deb.file)])
      .split("\n")
      .filter((line) => line.startsWith("-"))
      .map((line) => line.split(/\s+/).pop())
      .sort();
    const expected = [
      `./usr/bin/${deb.exe}`,
      `./usr/share/doc/${deb.name}/README.md`,
      `./usr/share/doc/${deb.name}/copyright`,
    ];
    assert.deepEqual(listed, expected, deb.file);
  }
});

test("each Debian package is named and versioned after the server it comes with", { skip: !onDebian }, () => {
  const [init] = talk(join(debs.bridge.root, "usr/bin/tondrel-mcp"), [initialize]);
  const version = init.result.serverInfo.version;
  const arch = run("dpkg", ["--print-architecture"]).trim();
  for (const deb of Object.values(debs)) {
    for (const [what, actual, expected] of [
      ["file name", deb.file, `${deb.name}_${version}_${arch}.deb`],
      ["Package", debField(deb, "Package"), deb.name],
      ["Version", debField(deb, "Version"), version],
      ["Architecture", debField(deb, "Architecture"), arch],
    ]) {
      assert.equal(actual, expected, `${deb.name}: ${what}`);
    }
  }
});

test("the bridge's package depends on libcurl, which the server opens at run time", { skip: !onDebian }, () => {
  const depends = debField(debs.bridge, "Depends").split(",").map((d) => d.trim());
  assert.ok(depends.includes("libcurl4 | libcurl3-gnutls"), depends.join(", "));
});

test("each Debian package depends on the package of every library its executable links", { skip: !onDebian }, () => {
  for (const deb of Object.values(debs)) {
    const declared = dependsOn(deb);
    for (const [library, owners] of Object.entries(linkedPackages(join(deb.root, "usr/bin", deb.exe)))) {
      assert.ok(
        owners.some((p) => declared.includes(p)),
        `${deb.exe} links ${library} from ${owners.join(" or ")}, which Depends does not name: ${debField(deb, "Depends")}`,
      );
    }
  }
});

test("the bridge's package depends on nothing its server does not link, but libcurl", { skip: !onDebian }, () => {
  // The simulator's libraries (libsndfile, cairo, cpp-httplib) must never reach a user of the bridge.
  const linked = Object.values(linkedPackages(join(debs.bridge.root, "usr/bin/tondrel-mcp"))).flat();
  for (const name of dependsOn(debs.bridge)) {
    if (name === "libcurl4" || name === "libcurl3-gnutls") continue;
    assert.ok(linked.includes(name), `tondrel-mcp depends on ${name}, which it does not link`);
  }
});

test("the simulator's package runs: it writes its test tone", { skip: !onDebian }, () => {
  const tone = join(scratch, "tone.wav");
  run(join(debs.simulator.root, "usr/bin/tondrel-editor-sim"), ["--write-test-tone", tone], { timeout: 30000 });
  const header = readFileSync(tone).subarray(0, 12).toString("latin1");
  assert.equal(header.slice(0, 4) + header.slice(8), "RIFFWAVE");
});

// Debian's machine-readable copyright format, written from LICENSE.
function parseCopyright(text) {
  const [header, ...paragraphs] = text.trimEnd().split("\n\n");
  const fields = (block) => {
    const out = {};
    let key;
    for (const line of block.split("\n")) {
      if (line.startsWith(" ")) out[key] += "\n" + (line === " ." ? "" : line.slice(1));
      else [, key, out[key]] = line.match(/^([\w-]+):\s*(.*)$/);
    }
    return out;
  };
  return { header: fields(header), files: paragraphs.map(fields) };
}

test("each Debian package carries LICENSE as a machine-readable copyright file", { skip: !onDebian }, () => {
  const holders = license.match(/^Copyright \(c\) (.+)$/m)[1];
  const terms = license.slice(license.indexOf("Permission is hereby granted")).trim();
  for (const deb of Object.values(debs)) {
    const { header, files: [all, ...rest] } = parseCopyright(
      readFileSync(join(deb.root, `usr/share/doc/${deb.name}/copyright`), "utf8"),
    );
    for (const [what, actual, expected] of [
      ["Format", header.Format, "https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/"],
      ["Upstream-Name", header["Upstream-Name"], "tondrel-mcp"],
      ["Files", all.Files, "*"],
      ["Copyright", all.Copyright, holders],
      ["License", all.License, `Expat\n${terms}`],
      ["other paragraphs", rest.length, 0],
    ]) {
      assert.equal(actual, expected, `${deb.name}: ${what}`);
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
    ["license", manifest.license, "MIT"],
    ["LICENSE", readFileSync(join(bundleRoot, "LICENSE"), "utf8"), license],
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

// scripts/package --registry: a release gathers one bundle per platform and processor
// in a directory and names them all in one server.json. Only this machine's bundle
// can be built here; the others stand in as files of other bytes.
test("server.json names every bundle gathered for a release, each by its own SHA-256", () => {
  const version = manifest.version;
  const other = (target) => `tondrel-mcp-${version}-${target}.mcpb`;
  const digest = (path) => createHash("sha256").update(readFileSync(path)).digest("hex");
  const cases = [
    // [what, the bundles besides this machine's, written, its identifiers in order]
    ["this machine's alone", [], true],
    ["and a Mac's", [other("darwin-arm64")], true],
    ["and three others", [other("darwin-arm64"), other("darwin-x86_64"), other("linux-arm64")], true],
    ["and one of another version", [`tondrel-mcp-0.0.1-darwin-arm64.mcpb`], false],
    ["and one of no known processor", [other("linux-riscv64")], false],
  ];
  for (const [what, extra, written] of cases) {
    const release = mkdtempSync(join(scratch, "release-"));
    copyFileSync(join(dir, bundleFile), join(release, bundleFile));
    for (const name of extra) writeFileSync(join(release, name), `not ${bundleFile}: ${name}\n`);
    const done = spawnSync(fileURLToPath(repoFile("scripts/package")), ["--registry", release], {
      encoding: "utf8",
      timeout: 120000,
    });
    assert.equal(done.status === 0, written, `${what}: ${done.stderr}`);
    assert.equal(existsSync(join(release, "server.json")), written, `${what}: server.json`);
    if (!written) continue;
    const entry = JSON.parse(readFileSync(join(release, "server.json"), "utf8"));
    const names = [bundleFile, ...extra].sort();
    assert.deepEqual(
      entry.packages.map((p) => [p.identifier, p.fileSha256]),
      names.map((n) => [`${entry.repository.url}/releases/download/v${version}/${n}`, digest(join(release, n))]),
      what,
    );
    // Apart from the file each names, the packages are alike: the same server started the same way.
    const started = ({ identifier, fileSha256, ...rest }) => rest;
    for (const pkg of entry.packages) assert.deepEqual(started(pkg), started(registry.packages[0]), what);
  }
});

test("the Homebrew formulae build the version and repository the packages name, under its licence", () => {
  const repository = registry.repository.url;
  for (const file of ["tondrel-mcp.rb", "tondrel-editor-sim.rb"]) {
    const formula = readFileSync(repoFile(`packaging/homebrew/${file}`), "utf8");
    const field = (name) => formula.match(new RegExp(`^\\s*${name} "([^"]*)"`, "m"))?.[1];
    if (file === "tondrel-mcp.rb") assert.equal(field("desc"), manifest.description, `${file}: desc`);
    for (const [what, actual, expected] of [
      ["homepage", field("homepage"), repository],
      ["url", field("url"), `${repository}/archive/refs/tags/v${manifest.version}.tar.gz`],
      ["license", field("license"), manifest.license],
    ]) {
      assert.equal(actual, expected, `${file}: ${what}`);
    }
  }
});
