// A small editor on Node's http module, for running the bridge against real HTTP servers:
// connections kept alive, and closed by the editor once idle for 5 s.
// It prints its port, answers from answers.txt and snapshot.png beside it, and when its
// standard input closes prints one line of JSON and exits, as python_editor.py does.
import fs from "node:fs";
import http from "node:http";

const here = new URL(".", import.meta.url);
const answers = new Map([["GET /v1/snapshot.png", [fs.readFileSync(new URL("snapshot.png", here)), "image/png"]]]);
for (const line of fs.readFileSync(new URL("answers.txt", here), "utf8").split("\n")) {
  if (!line.trim() || line.startsWith("#")) continue;
  const end = line.indexOf(" ", line.indexOf(" ") + 1);
  answers.set(line.slice(0, end), [Buffer.from(line.slice(end + 1)), "application/json"]);
}

const requests = {};
const bodyBytes = {};

const server = http.createServer((request, response) => {
  const key = `${request.method} ${request.url}`;
  let length = 0;
  request.on("data", (chunk) => (length += chunk.length));
  request.on("end", () => {  // the whole body has arrived: the edit is applied
    requests[key] = (requests[key] ?? 0) + 1;
    bodyBytes[key] = (bodyBytes[key] ?? 0) + length;
    const [data, type] = answers.get(key) ?? [Buffer.from('{"error":"no such endpoint"}'), "application/json"];
    response.writeHead(answers.has(key) ? 200 : 404, { "Content-Type": type, "Content-Length": data.length });
    response.end(data);
  });
});
server.keepAliveTimeout = 5000;  // Node's default, stated: the session's pause outlasts it
server.listen(0, "127.0.0.1", () => console.log(server.address().port));

process.stdin.resume();
process.stdin.on("end", () => {
  process.stdout.write(JSON.stringify({ requests, bodyBytes }) + "\n", () => process.exit(0));
});
