// scripts/check-readme against lines as the README might hold them, one case a line:
// what it must say of each, or nothing.
import { test } from "node:test";
import assert from "node:assert/strict";
import { spawnSync } from "node:child_process";
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { fileURLToPath } from "node:url";

const script = fileURLToPath(new URL("../../scripts/check-readme", import.meta.url));

// Lines inside a fenced block, as a user would paste them.
const typed = [
  ["sudo apt install ./build/release/package/tondrel-mcp_0.9.0_amd64.deb", []],
  ["apt install /tmp/tondrel-mcp_0.9.0_amd64.deb", []],
  ["sudo apt install cmake g++ libsimdjson-dev", []],
  ["sudo apt install build/release/package/tondrel-mcp_0.9.0_amd64.deb", ["apt takes build/release/package/"]],
  ["npx -y @modelcontextprotocol/inspector@0.15.0 --cli /usr/bin/tondrel-mcp", []],
  ["npx --yes some-tool@1.2.3", []],
  ["npx @modelcontextprotocol/inspector@0.15.0 --cli x", ["npx without -y"]],
  ["npx -y @modelcontextprotocol/inspector --cli x", ["without an @version"]],
  ['    "env": { "TONDREL_API_PORT": "17910" }', ["TONDREL_API_PORT set to 17910"]],
  ["TONDREL_API_PORT=17910 tondrel-mcp", ["TONDREL_API_PORT set to 17910"]],
  ['env = { TONDREL_API_PORT = "17911" }', []],
  ["claude mcp add --scope user tondrel --env TONDREL_API_PORT=17911 -- /usr/bin/tondrel-mcp", []],
  ["TONDREL_API_PORT=179100", []],
  ["C:\\Users\\me\\tondrel-mcp.exe", ["a Windows path (C:\\)"]],
  ['  "text": "one\\ntwo\\n"', []],
  ["ssh -N -L 17910:127.0.0.1:17910 user@mac \\", []],
  ["", []],
  ["npx some-tool", ["npx without -y", "without an @version"]],
];
// Lines of text, where only `code` is typed.
const prose = [
  ["then `apt-get install -y tondrel-mcp_0.9.0_amd64.deb` as root", ["apt takes tondrel-mcp_0.9.0_amd64.deb"]],
  ["Without `-y` npx asks before it installs a package", []],
  ["`npx some-tool`, or `npx -y other-tool@2.0.0`", ["npx without -y", "without an @version"]],
  ["port 17910 or `TONDREL_API_PORT`, never TONDREL_API_PORT=17910 outside code", []],
  ["(`%APPDATA%\\Claude\\` on Windows)", ["a Windows path (%APPDATA%)"]],
  ["Claude Desktop runs on macOS and Windows", []],
  // `code` that runs on to the next line is read whole, where it ends; a blank line ends it.
  ["start it with `npx -y", []],
  ["@scope/tool --cli` and then `npx -y @scope/tool@1.0.0`", ["without an @version"]],
  ["an unclosed ` npx here", []],
  ["", []],
  ["npx there`", []],
];
const cases = [["```sh", []], ...typed, ["```", []], ...prose];

test("check-readme finds each misleading line and passes the rest", () => {
  const dir = mkdtempSync(join(tmpdir(), "check-readme-"));
  try {
    const file = join(dir, "README.md");
    writeFileSync(file, cases.map(([line]) => line).join("\n") + "\n");
    const done = spawnSync(script, [file], { encoding: "utf8", timeout: 10000 });
    const said = cases.map(() => []);
    for (const finding of done.stdout.split("\n").filter(Boolean)) {
      const [, line, what] = finding.match(/^[^:]+:(\d+): (.*)$/);
      said[line - 1].push(what);
    }
    cases.forEach(([line, expected], i) => {
      assert.equal(said[i].length, expected.length, `${line}\n${said[i].join("\n")}`);
      expected.forEach((part, j) => assert.ok(said[i][j].includes(part), `${line}\n${said[i][j]}`));
    });
    assert.equal(done.status, 1, done.stderr);
  } finally {
    rmSync(dir, { recursive: true, force: true });
  }
});
