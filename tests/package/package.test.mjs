// Checks what scripts/package made, as a user, a host and a registry would meet it:
// the Debian packages' files, licence and dependencies, the MCP Bundle unpacked and
// started the way a host starts it, the registry entry against the bundles it names,
// and the Homebrew formulae. TONDREL_PACKAGE_DIR holds the packages; TONDREL_MCPB is
// the pinned mcpb CLI.
import { test, before, after } from "node:test";
import assert from "node:assert/strict";
import { execFileSync, spawnSync } from "node:child_process";
import { createHash } from "node:crypto";
import { copyFileSync, existsSync, mkdtempSync, readFileSync, readdirSync, rmSync, writeFileSync } from "node:fs";
import { createServer } from "node:net";
import { tmpdir } from "node:os";
import { basename, dirname, join } from "node:path";
import { fileURLToPath } from "node:url";

const dir = process.env.TONDREL_PACKAGE_DIR;
const linuxOnly = { skip: process.platform !== "linux" };
const files = readdirSync(dir);
const bundleFile = files.find((f) => f.endsWith(".mcpb"));
const debs = ["tondrel-mcp", "tondrel-editor-sim"]
  .map((name) => ({ name, file: files.find((f) => f.startsWith(`${name}_`) && f.endsWith(".deb")) }));
const repoFile = (path) => fileURLToPath(new URL(`../../${path}`, import.meta.url));
const license = readFileSync(repoFile("LICENSE"), "utf8");
const run = (command, args) => execFileSync(command, args, { encoding: "utf8" });
let scratch, bundleRoot, manifest, registry;

before(() => {
  scratch = mkdtempSync(join(tmpdir(), "tondrel-package-"));
  bundleRoot = join(scratch, "bundle");
  run(process.env.TONDREL_MCPB, ["unpack", join(dir, bundleFile), bundleRoot]);
  manifest = JSON.parse(readFileSync(join(bundleRoot, "manifest.json"), "utf8"));
  registry = JSON.parse(readFileSync(join(dir, "server.json"), "utf8"));
  for (const d of linuxOnly.skip ? [] : debs) run("dpkg-deb", ["-x", join(dir, d.file), join(scratch, d.name)]);
});

after(() => rmSync(scratch, { recursive: true, force: true }));

test("each Debian package installs its executable, README and a copyright written from LICENSE", linuxOnly, () => {
  const holders = license.match(/^Copyright \(c\) (.+)$/m)[1];
  const terms = license.slice(license.indexOf("Permission is hereby granted")).trim();
  for (const { name, file } of debs) {
    const listed = run("dpkg-deb", ["-c", join(dir, file)]).match(/^-.* \S+$/gm).map((l) => l.split(" ").pop());
    const doc = `./usr/share/doc/${name}`;
    assert.deepEqual(listed.sort(), [`./usr/bin/${name}`, `${doc}/README.md`, `${doc}/copyright`], file);
    // Debian's machine-readable format: continuation lines indented, " ." for a blank line.
    const text = readFileSync(join(scratch, name, doc, "copyright"), "utf8");
    const copyright = text.replaceAll("\n .\n", "\n\n").replaceAll("\n ", "\n");
    assert.match(copyright, /^Format: https:\/\/www\.debian\.org\/doc\/packaging-manuals\/copyright-format\/1\.0\/\n/);
    assert.ok(copyright.endsWith(`\n\nFiles: *\nCopyright: ${holders}\nLicense: Expat\n${terms}\n`), copyright);
  }
});

// The packages that own the libraries an executable itself links (not what those link in turn).
function linkedPackages(binary) {
  const resolved = Object.fromEntries([...run("ldd", [binary]).matchAll(/(\S+) => (\S+)/g)].map((m) => m.slice(1)));
  return [...run("objdump", ["-p", binary]).matchAll(/^\s*NEEDED\s+(\S+)$/gm)].map(([, library]) => {
    // The multiarch directory keeps other architectures' copies of the same library out.
    const owners = run("dpkg", ["-S", `*/${basename(dirname(resolved[library]))}/${library}`]).match(/^[^:]+/gm);
    return { library, owners: owners.flatMap((o) => o.split(", ")) };
  });
}

test("each Debian package depends on what it links; the bridge's on nothing else but libcurl", linuxOnly, () => {
  for (const { name, file } of debs) {
    const field = run("dpkg-deb", ["-f", join(dir, file), "Depends"]).trim();
    const depends = field.split(/[,|]/).map((d) => d.trim().split(/[\s(]/)[0]);
    const linked = linkedPackages(join(scratch, name, "usr/bin", name));
    const unnamed = linked.filter(({ owners }) => !owners.some((p) => depends.includes(p))).map((l) => l.library);
    assert.deepEqual(unnamed, [], `${name} links these from packages its Depends does not name: ${field}`);
    if (name !== "tondrel-mcp") continue;
    // libcurl is opened at the first tool call, so no tool finds it; the simulator's libraries must stay out.
    assert.match(field, /(^|, )libcurl4 \| libcurl3-gnutls(,|$)/);
    const allowed = ["libcurl4", "libcurl3-gnutls", ...linked.flatMap((l) => l.owners)];
    for (const d of depends) assert.ok(allowed.includes(d), `tondrel-mcp depends on ${d}, which it does not link`);
  }
});

test("the bundle validates, holds LICENSE, and its server starts as a host starts it, on the user's port", async () => {
  run(process.env.TONDREL_MCPB, ["validate", join(bundleRoot, "manifest.json")]);
  assert.equal(readFileSync(join(bundleRoot, "LICENSE"), "utf8"), license);
  const closed = createServer();
  await new Promise((resolve) => closed.listen(0, "127.0.0.1", resolve));
  const port = `${closed.address().port}`;
  await new Promise((resolve) => closed.close(resolve));
  // A host fills in the manifest's placeholders: where it unpacked the bundle, and the user's settings.
  const config = JSON.stringify(manifest.server.mcp_config).replaceAll("${__dirname}", bundleRoot);
  const { command, env } = JSON.parse(config.replaceAll("${user_config.api_port}", port));
  // Whatever is not part of every system must come from the bundle itself.
  const base = /^(linux-vdso|ld-linux|libc|libm|libdl|libpthread|librt|libgcc_s|libstdc\+\+)[.-]/;
  const ldd = linuxOnly.skip ? "" : run("ldd", [command]);
  const outside = [...ldd.matchAll(/(\S+) => (.*)/g)].filter((m) => !base.test(m[1]) && !m[2].startsWith(bundleRoot));
  assert.deepEqual(outside.map(([line]) => line), []);
  const input = `{"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}}
{"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"tondrel_state","arguments":{}}}\n`;
  const done = spawnSync(command, [], { input, env, encoding: "utf8", timeout: 30000 });
  const [init, call] = done.stdout.trim().split("\n").map((line) => JSON.parse(line));
  assert.equal(init.result.serverInfo.version, manifest.version);
  assert.match(call.result.content[0].text, new RegExp(`not reachable at http://127\\.0\\.0\\.1:${port} `));
});

// scripts/package --registry: a release gathers one bundle per platform and processor in a
// directory and names them all in one server.json. Only this machine's bundle can be built
// here; the others stand in as files of other bytes.
test("server.json names each bundle of a release by its SHA-256, refusing another version or processor in one line", () => {
  const other = (target) => `tondrel-mcp-${manifest.version}-${target}.mcpb`;
  // The bundles gathered beside this machine's, and the one refused, if any.
  for (const [extra, refused] of [
    [[], null],
    [[other("darwin-arm64"), other("darwin-x86_64"), other("linux-arm64")], null],
    [["tondrel-mcp-0.0.1-darwin-arm64.mcpb"], "tondrel-mcp-0.0.1-darwin-arm64.mcpb"],
    [[other("linux-riscv64")], other("linux-riscv64")],
  ]) {
    const release = mkdtempSync(join(scratch, "release-"));
    copyFileSync(join(dir, bundleFile), join(release, bundleFile));
    for (const name of extra) writeFileSync(join(release, name), `not ${bundleFile}: ${name}\n`);
    const done = spawnSync(repoFile("scripts/package"), ["--registry", release], { encoding: "utf8", timeout: 120000 });
    const written = existsSync(join(release, "server.json"));
    assert.deepEqual([done.status === 0, written], [!refused, !refused], done.stderr);
    if (refused) {
      assert.equal(done.stderr.split("\n").filter(Boolean).length, 1, done.stderr);
      assert.ok(done.stderr.startsWith(`package: ${release}/server.json not written: ${refused} is not a `), done.stderr);
      continue;
    }
    const entry = JSON.parse(readFileSync(join(release, "server.json"), "utf8"));
    if (extra.length === 0) assert.deepEqual(entry, registry, "the entry scripts/package wrote");
    const named = (file) => [`${entry.repository.url}/releases/download/v${manifest.version}/${file}`,
      createHash("sha256").update(readFileSync(join(release, file))).digest("hex")];
    assert.deepEqual(entry.packages.map((p) => [p.identifier, p.fileSha256]), [bundleFile, ...extra].sort().map(named));
  }
});

test("the Homebrew formulae build this version's tarball under its licence, and test what they install", () => {
  const tarball = `${registry.repository.url}/archive/refs/tags/v${manifest.version}.tar.gz`;
  for (const file of ["tondrel-mcp.rb", "tondrel-editor-sim.rb"]) {
    const formula = readFileSync(repoFile(`packaging/homebrew/${file}`), "utf8");
    const field = (name) => formula.match(new RegExp(`^\\s*${name} "([^"]*)"`, "m"))?.[1];
    assert.deepEqual([field("url"), field("license")], [tarball, "MIT"], file);
    assert.match(formula, /^ {2}test do\n[\s\S]*?^ {4}assert[\s\S]*?^ {2}end$/m, file);
  }
});
