// An experiment, not part of the bridge: cpp-httplib's client against libcurl
// for the editor round trip. Speed on the stand-in editor (time per GET on one
// kept-alive connection, instructions per GET under callgrind, a fresh process's
// first answer), and behaviour under each way the editor may fail, against a
// scripted editor. libcurl is set up as tondrel-mcp sets it up.
//
// Usage: bench-transport             everything, as a markdown table
//        bench-transport --calls CLIENT N   N GETs, for callgrind (internal)
//        bench-transport --first CLIENT     one fresh first answer, µs (internal)
#include <curl/curl.h>
#include <dlfcn.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "editor.hpp"
#include "process.hpp"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kSilence = 2.0;  // seconds; the bridge's 30 s scaled down so the faults run quickly

double wallMicros() {
  return std::chrono::duration<double, std::micro>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Spawn of a fresh process to its first answer (loading included), less the same
// process spawned to do nothing.
double firstAnswer(const std::string& client, const std::vector<std::string>& env);

double micros(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// ------------------------------------------------------------------ the two clients

struct Answer {
  bool ok = false;  // an HTTP answer came back
  long status = 0;
  std::string body;
};

class Client {
 public:
  virtual ~Client() = default;
  virtual Answer send(const std::string& method, const std::string& path, const std::string& body) = 0;
};

// libcurl, loaded at the first request and set up as the bridge sets it up.
class Curl : public Client {
 public:
  explicit Curl(int port) : base_("http://127.0.0.1:" + std::to_string(port)) {}
  ~Curl() override {
    if (easy_) easy_cleanup_(easy_);
  }
  Answer send(const std::string& method, const std::string& path, const std::string& body) override {
    if (!easy_) load();
    Answer answer;
    std::string url = base_ + path;
    setopt_(easy_, CURLOPT_URL, url.c_str());
    setopt_(easy_, CURLOPT_FRESH_CONNECT, long(method != "GET"));
    if (method == "GET") {
      setopt_(easy_, CURLOPT_HTTPGET, 1L);
    } else {
      setopt_(easy_, CURLOPT_POSTFIELDS, body.c_str());
      setopt_(easy_, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(body.size()));
    }
    setopt_(easy_, CURLOPT_CUSTOMREQUEST, method.c_str());
    setopt_(easy_, CURLOPT_WRITEDATA, &answer.body);
    fresh_ = true;
    if (perform_(easy_) != CURLE_OK) return answer;
    getinfo_(easy_, CURLINFO_RESPONSE_CODE, &answer.status);
    answer.ok = true;
    return answer;
  }

 private:
  static int onProgress(void* user, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up) {
    auto& self = *static_cast<Curl*>(user);
    auto now = Clock::now();
    if (down + up != self.moved_ || self.fresh_) self.moved_ = down + up, self.lastMoved_ = now, self.fresh_ = false;
    return now - self.lastMoved_ > std::chrono::duration<double>(kSilence);
  }
  static size_t onBody(char* data, size_t, size_t size, void* user) {
    static_cast<std::string*>(user)->append(data, size);
    return size;
  }
  void load() {
    void* so = dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
    if (!so) throw std::runtime_error("no libcurl.so.4");
    auto init = reinterpret_cast<CURLcode (*)(long)>(dlsym(so, "curl_global_init"));
    auto easyInit = reinterpret_cast<CURL* (*)()>(dlsym(so, "curl_easy_init"));
    setopt_ = reinterpret_cast<CURLcode (*)(CURL*, CURLoption, ...)>(dlsym(so, "curl_easy_setopt"));
    perform_ = reinterpret_cast<CURLcode (*)(CURL*)>(dlsym(so, "curl_easy_perform"));
    getinfo_ = reinterpret_cast<CURLcode (*)(CURL*, CURLINFO, ...)>(dlsym(so, "curl_easy_getinfo"));
    easy_cleanup_ = reinterpret_cast<void (*)(CURL*)>(dlsym(so, "curl_easy_cleanup"));
    auto append = reinterpret_cast<curl_slist* (*)(curl_slist*, const char*)>(dlsym(so, "curl_slist_append"));
    init(CURL_GLOBAL_DEFAULT);
    easy_ = easyInit();
    headers_ = append(append(nullptr, "Accept:"), "Expect:");
    setopt_(easy_, CURLOPT_NOSIGNAL, 1L);
    setopt_(easy_, CURLOPT_PROXY, "");
    setopt_(easy_, CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
    setopt_(easy_, CURLOPT_MAXCONNECTS, 1L);
    setopt_(easy_, CURLOPT_CONNECTTIMEOUT_MS, long(kSilence * 1000));
    // Silence is timed in a progress callback, as the bridge times it.
    setopt_(easy_, CURLOPT_NOPROGRESS, 0L);
    setopt_(easy_, CURLOPT_XFERINFOFUNCTION, &Curl::onProgress);
    setopt_(easy_, CURLOPT_XFERINFODATA, this);
    setopt_(easy_, CURLOPT_BUFFERSIZE, 256L * 1024);
    setopt_(easy_, CURLOPT_HTTPHEADER, headers_);
    setopt_(easy_, CURLOPT_WRITEFUNCTION, &Curl::onBody);
  }

  std::string base_;
  CURL* easy_ = nullptr;
  curl_slist* headers_ = nullptr;
  CURLcode (*setopt_)(CURL*, CURLoption, ...) = nullptr;
  CURLcode (*perform_)(CURL*) = nullptr;
  CURLcode (*getinfo_)(CURL*, CURLINFO, ...) = nullptr;
  void (*easy_cleanup_)(CURL*) = nullptr;
  curl_off_t moved_ = 0;
  Clock::time_point lastMoved_;
  bool fresh_ = true;
};

// cpp-httplib's client, header-only, with the same timeouts; no proxy unless set.
class Httplib : public Client {
 public:
  explicit Httplib(int port) : client_("127.0.0.1", port) {
    client_.set_keep_alive(true);
    client_.set_connection_timeout(std::chrono::milliseconds(long(kSilence * 1000)));
    client_.set_read_timeout(std::chrono::milliseconds(long(kSilence * 1000)));
    client_.set_write_timeout(std::chrono::milliseconds(long(kSilence * 1000)));
  }
  Answer send(const std::string& method, const std::string& path, const std::string& body) override {
    httplib::Result result = method == "GET" ? client_.Get(path)
                             : method == "PUT" ? client_.Put(path, body, "application/json")
                                               : client_.Post(path, body, "application/json");
    Answer answer;
    if (!result) return answer;
    answer.ok = true;
    answer.status = result->status;
    answer.body = result->body;
    return answer;
  }

 private:
  httplib::Client client_;
};

std::unique_ptr<Client> make(const std::string& name, int port) {
  if (name == "curl") return std::make_unique<Curl>(port);
  return std::make_unique<Httplib>(port);
}

// ------------------------------------------------------------------ a scripted editor for the faults

// Accepts connections on 127.0.0.1 and hands each to the script, on its own thread.
class Scripted {
 public:
  explicit Scripted(std::function<void(int fd, int connection)> script) : script_(std::move(script)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    ::listen(listener_, 16);
    thread_ = std::thread([this] {
      for (int n = 0;; ++n) {
        int fd = ::accept(listener_, nullptr, nullptr);
        if (fd < 0) return;
        ++accepted_;
        workers_.emplace_back([this, fd, n] {
          script_(fd, n);
          ::close(fd);
        });
      }
    });
  }
  ~Scripted() {
    ::shutdown(listener_, SHUT_RDWR);
    ::close(listener_);
    thread_.join();
    for (auto& w : workers_) w.join();
  }
  int port() const { return port_; }
  int accepted() const { return accepted_; }
  std::atomic<int> requests{0};

  // Reads one request head and its Content-Length body; false at the end of the stream.
  bool readRequest(int fd) {
    std::string in;
    char buffer[65536];
    std::size_t headEnd;
    while ((headEnd = in.find("\r\n\r\n")) == std::string::npos) {
      ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) return false;
      in.append(buffer, n);
    }
    std::size_t length = 0;
    if (auto at = in.find("Content-Length: "); at != std::string::npos) length = std::stoul(in.substr(at + 16));
    while (in.size() < headEnd + 4 + length) {
      ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) return false;
      in.append(buffer, n);
    }
    ++requests;
    return true;
  }
  static void write(int fd, std::string_view text) { (void)!::send(fd, text.data(), text.size(), MSG_NOSIGNAL); }
  static std::string ok(std::string_view body) {
    return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + std::string(body);
  }

 private:
  std::function<void(int, int)> script_;
  int listener_ = -1, port_ = 0;
  std::atomic<int> accepted_{0};
  std::thread thread_;
  std::vector<std::thread> workers_;
};

struct Fault {
  std::string name;
  std::function<void(Scripted&, int fd, int connection)> script;
  // Given the client's answers (the last request's is what counts) and the editor, whether it behaved.
  std::function<bool(const std::vector<Answer>&, Scripted&, double seconds)> right;
  std::vector<std::pair<std::string, std::string>> requests;  // method, path
};

std::vector<Fault> faults() {
  using A = std::vector<Answer>;
  return {
      {"PUT, editor silent past the timeout: fails after it, sent once",
       [](Scripted& s, int fd, int) {
         if (s.readRequest(fd)) std::this_thread::sleep_for(std::chrono::duration<double>(kSilence * 2.5));
       },
       [](const A& a, Scripted& s, double t) {
         return !a.back().ok && s.requests == 1 && t >= kSilence * 0.9 && t < kSilence * 2.2;
       },
       {{"PUT", "/v1/document"}}},
      {"POST, editor answers bytes that are not HTTP: fails, sent once",
       [](Scripted& s, int fd, int) {
         if (s.readRequest(fd)) Scripted::write(fd, "SSH-2.0-OpenSSH\r\n\r\n");
       },
       [](const A& a, Scripted& s, double) { return !a.back().ok && s.requests == 1; },
       {{"POST", "/v1/edit"}}},
      {"POST, editor reads the request then closes: fails, sent once",
       [](Scripted& s, int fd, int) { s.readRequest(fd); },
       [](const A& a, Scripted& s, double) { return !a.back().ok && s.requests == 1; },
       {{"POST", "/v1/edit"}}},
      {"POST on a kept-alive connection the editor has closed: sent once",
       [](Scripted& s, int fd, int connection) {
         if (!s.readRequest(fd)) return;
         if (connection == 0) {
           Scripted::write(fd, Scripted::ok("first"));
           std::this_thread::sleep_for(std::chrono::milliseconds(100));
           return;  // closes while idle
         }
         Scripted::write(fd, Scripted::ok("second"));
       },
       [](const A& a, Scripted& s, double) { return s.requests == 2 && a.back().ok && a.back().body == "second"; },
       {{"GET", "/v1/state"}, {"POST", "/v1/edit"}}},
      {"Unread bytes on an idle kept-alive connection are never the next answer",
       [](Scripted& s, int fd, int) {
         for (int n = 0; s.readRequest(fd); ++n) {
           Scripted::write(fd, Scripted::ok(n == 0 ? "first" : "fresh"));
           if (n > 0) continue;
           std::this_thread::sleep_for(std::chrono::milliseconds(100));  // once the client is idle
           Scripted::write(fd, Scripted::ok("stale"));
         }
       },
       [](const A& a, Scripted&, double) { return a.size() == 2 && a[1].ok && a[1].body == "fresh"; },
       {{"GET", "/v1/state"}, {"GET", "/v1/state"}}},
      {"A long answer that keeps flowing outlasts the timeout",
       [](Scripted& s, int fd, int) {
         if (!s.readRequest(fd)) return;
         std::string body(64, 'x');
         Scripted::write(fd, "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size() * 30) + "\r\n\r\n");
         for (int i = 0; i < 30; ++i) {
           std::this_thread::sleep_for(std::chrono::duration<double>(kSilence / 10));
           Scripted::write(fd, body);
         }
       },
       [](const A& a, Scripted&, double) { return a.back().ok && a.back().body.size() == 64 * 30; },
       {{"GET", "/v1/state"}}},
      {"A proxy named in the environment is not used",
       [](Scripted& s, int fd, int) {
         if (s.readRequest(fd)) Scripted::write(fd, Scripted::ok("direct"));
       },
       [](const A& a, Scripted&, double) { return a.back().ok && a.back().body == "direct"; },
       {{"GET", "/v1/state"}}},
  };
}

// ------------------------------------------------------------------ measurements

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

std::string self() {
  char path[4096];
  ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
  return std::string(path, n > 0 ? n : 0);
}

// Runs a program and returns what it prints.
std::string output(const std::vector<std::string>& arguments, const std::vector<std::string>& env) {
  std::string file = "/tmp/bench-transport-" + std::to_string(::getpid()) + ".out", command = "exec";
  for (const std::string& argument : arguments) command += " '" + argument + "'";
  bench::Child c = bench::spawn({"/bin/sh", "-c", command + " > " + file + " 2>/dev/null"}, env);
  bench::finish(c);
  std::ifstream in(file);
  std::string out((std::istreambuf_iterator<char>(in)), {});
  std::remove(file.c_str());
  return out;
}

double firstAnswer(const std::string& client, const std::vector<std::string>& env) {
  auto once = [&](const std::string& name) {
    double start = wallMicros();
    return std::stod("0" + output({self(), "--first", name}, env)) - start;
  };
  return once(client) - once("none");
}

double instructionsPerCall(const std::string& client, const std::vector<std::string>& env) {
  std::string valgrind = "/usr/bin/valgrind";
  if (::access(valgrind.c_str(), X_OK) != 0) return 0;
  auto count = [&](int calls) {
    std::string file = "/tmp/bench-transport-" + std::to_string(::getpid()) + ".callgrind";
    output({valgrind, "--tool=callgrind", "--log-file=/dev/null", "--callgrind-out-file=" + file, self(), "--calls",
           client, std::to_string(calls)},
          env);
    return bench::callgrindTotal(file);
  };
  constexpr int k = 200;
  return (count(2 * k) - count(k)) / k;
}

int run() {
  bench::Editor editor(bench::makePng(1024), bench::makeDocument(1024));
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) env.emplace_back(*e);
  env.push_back("BENCH_PORT=" + std::to_string(editor.port()));

  std::cout << "| Figure | libcurl | cpp-httplib |\n|---|---:|---:|\n";
  std::vector<double> perCall[2], first[2];
  const char* names[] = {"curl", "httplib"};
  for (int round = 0; round < 5; ++round)
    for (int i = 0; i < 2; ++i) {
      auto client = make(names[i], editor.port());
      for (int n = 0; n < 50; ++n) client->send("GET", "/v1/state", "");
      std::vector<double> times;
      for (int n = 0; n < 2000; ++n) {
        auto start = Clock::now();
        Answer a = client->send("GET", "/v1/state", "");
        times.push_back(micros(start));
        if (!a.ok || a.body != editor.state()) return std::cerr << "wrong answer from " << names[i] << "\n", 1;
      }
      perCall[i].push_back(median(times));
      first[i].push_back(firstAnswer(names[i], env));
    }
  std::printf("| GET /v1/state on a kept-alive connection, median of 5 × 2,000 | %.1f µs | %.1f µs |\n",
              median(perCall[0]), median(perCall[1]));
  std::printf("| Instructions per GET (callgrind, client side) | %.0f | %.0f |\n", instructionsPerCall("curl", env),
              instructionsPerCall("httplib", env));
  std::vector<double> idleSpawn, echoSpawn;
  for (int n = 0; n < 5; ++n) {
    double start = wallMicros();
    output({self(), "--first", "none"}, env);
    idleSpawn.push_back(wallMicros() - start);
    start = wallMicros();
    output({self().substr(0, self().rfind('/') + 1) + "bench-echo"}, env);
    echoSpawn.push_back(wallMicros() - start);
  }
  std::printf("| Spawn to exit doing nothing: this program (Debian's httplib is a shared library, with libssl, libcrypto, zlib, brotli) against bench-echo; median of 5 | %.0f µs (echo) | %.0f µs |\n",
              median(echoSpawn), median(idleSpawn));
  std::printf("| Fresh process: first answer, spawn and loading included, less an idle spawn; median of 5 | %.0f µs | %.0f µs |\n",
              median(first[0]), median(first[1]));

  for (const Fault& fault : faults()) {
    std::string verdict[2];
    for (int i = 0; i < 2; ++i) {
      Scripted editor2([&fault, &editor2](int fd, int connection) { fault.script(editor2, fd, connection); });
      if (fault.name.find("proxy") != std::string::npos) {
        ::setenv("http_proxy", "http://127.0.0.1:9", 1);
        ::setenv("HTTP_PROXY", "http://127.0.0.1:9", 1);
      }
      auto client = make(names[i], editor2.port());
      std::vector<Answer> answers;
      auto start = Clock::now();
      for (auto& [method, path] : fault.requests) {
        if (&path != &fault.requests.front().second) std::this_thread::sleep_for(std::chrono::milliseconds(300));
        start = Clock::now();
        answers.push_back(client->send(method, path, method == "GET" ? "" : "{\"ops\":[]}"));
      }
      double seconds = micros(start) / 1e6;
      ::unsetenv("http_proxy");
      ::unsetenv("HTTP_PROXY");
      client.reset();
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      bool right = fault.right(answers, editor2, seconds);
      char text[160];
      std::snprintf(text, sizeof text, "%s (%d sent, %.1f s)", right ? "right" : "**wrong**", editor2.requests.load(),
                    seconds);
      verdict[i] = text;
    }
    std::cout << "| " << fault.name << " | " << verdict[0] << " | " << verdict[1] << " |\n";
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  std::vector<std::string> args(argv + 1, argv + argc);
  const char* port = std::getenv("BENCH_PORT");
  if (args.size() == 3 && args[0] == "--calls" && port) {
    auto client = make(args[1], std::atoi(port));
    for (int n = 0, calls = std::stoi(args[2]); n < calls; ++n) client->send("GET", "/v1/state", "");
    return 0;
  }
  if (args.size() == 2 && args[0] == "--first" && port) {  // prints when its first answer came
    Answer a;
    if (args[1] != "none") a = make(args[1], std::atoi(port))->send("GET", "/v1/state", "");
    std::printf("%.0f\n", wallMicros());
    return a.ok || args[1] == "none" ? 0 : 1;
  }
  return run();
}
