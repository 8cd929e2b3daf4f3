// tondrel-mcp-manifest: prints what hosts and registries read about tondrel-mcp,
// written from the tool catalogue and the build's own facts so that no list is
// kept by hand beside the code.
//
//   tondrel-mcp-manifest bundle-file        the bundle's file name for this platform
//   tondrel-mcp-manifest bundle             the bundle's manifest.json
//   tondrel-mcp-manifest registry FILE SHA256 [FILE SHA256 ...]
//                                           server.json for the registry, naming each bundle
//                                           (one per platform and processor) by file and SHA-256
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "build_info.hpp"
#include "catalogue.hpp"
#include "editor_port.hpp"
#include "json_writer.hpp"

namespace {

constexpr std::string_view kName = "tondrel-mcp";
constexpr std::string_view kTitle = "Tondrel";
constexpr std::string_view kRepository = TONDREL_REPOSITORY;  // owner/name on GitHub
constexpr std::string_view kAuthorName = TONDREL_AUTHOR_NAME;
constexpr std::string_view kAuthorEmail = TONDREL_AUTHOR_EMAIL;
constexpr std::string_view kPortSetting = "api_port";
constexpr std::string_view kLicense = "MIT";  // SPDX identifier of LICENSE

// The bundle holds a native binary, so it serves only the system and processor it was built on.
#if defined(__APPLE__)
constexpr std::string_view kPlatform = "darwin";
#elif defined(__linux__)
constexpr std::string_view kPlatform = "linux";
#else
#error "tondrel-mcp bundles are made on macOS and Linux only"
#endif
#if defined(__x86_64__)
constexpr std::string_view kArch = "x86_64";
#elif defined(__aarch64__)
constexpr std::string_view kArch = "arm64";
#else
#error "unknown processor for the bundle's file name"
#endif

std::string repositoryURL() {
  return "https://github.com/" + std::string(kRepository);
}

std::string bundlePrefix() {
  return std::string(kName) + '-' + tondrel::kVersion + '-';
}

std::string bundleFile() {
  return bundlePrefix() + std::string(kPlatform) + '-' + std::string(kArch) + ".mcpb";
}

// A release gathers the bundles built on each system; the registry entry may name
// only those of this version, for a platform and processor a host can run.
bool isBundleFile(std::string_view file) {
  std::string prefix = bundlePrefix();
  constexpr std::string_view suffix = ".mcpb";
  if (!file.starts_with(prefix) || !file.ends_with(suffix)) return false;
  std::string_view target = file.substr(prefix.size(), file.size() - prefix.size() - suffix.size());
  for (std::string_view platform : {"darwin-", "linux-", "win32-"}) {
    if (!target.starts_with(platform)) continue;
    std::string_view arch = target.substr(platform.size());
    return arch == "x86_64" || arch == "arm64";
  }
  return false;
}

std::string portDescription() {
  return "Port of the Tondrel editor's HTTP API on 127.0.0.1 (" + std::to_string(tondrel::kDefaultPort) +
         " unless the editor is set otherwise).";
}

// A host shows these in its install dialog: one line each is what fits there.
std::string_view summary(std::string_view description) {
  return description.substr(0, description.find('\n'));
}

std::string bundleManifest() {
  tondrel::Buffer out;
  tondrel::JsonWriter json(out);
  json.beginObject()
      .member("manifest_version", "0.3")
      .member("name", kName)
      .member("display_name", kTitle)
      .member("version", tondrel::kVersion)
      .member("description", tondrel::kDescription)
      .member("license", kLicense)
      .key("author")
      .beginObject()
      .member("name", kAuthorName)
      .member("email", kAuthorEmail)
      .endObject()
      .key("repository")
      .beginObject()
      .member("type", "git")
      .member("url", repositoryURL())
      .endObject()
      .member("homepage", repositoryURL());

  std::string command = "${__dirname}/server/" + std::string(kName);
  std::string port = "${user_config." + std::string(kPortSetting) + "}";
  json.key("server")
      .beginObject()
      .member("type", "binary")
      .member("entry_point", "server/" + std::string(kName))
      .key("mcp_config")
      .beginObject()
      .member("command", command)
      .key("args")
      .beginArray()
      .endArray()
      .key("env")
      .beginObject()
      .member(tondrel::kPortVariable, port)
      .endObject()
      .endObject()
      .endObject();

  json.key("tools").beginArray();
  for (const tondrel::ToolDefinition& tool : tondrel::tondrelToolDefinitions()) {
    json.beginObject().member("name", tool.name).member("description", summary(tool.description)).endObject();
  }
  json.endArray().member("tools_generated", false);

  json.key("compatibility")
      .beginObject()
      .key("platforms")
      .beginArray()
      .string(kPlatform)
      .endArray()
      .endObject();

  json.key("user_config")
      .beginObject()
      .key(kPortSetting)
      .beginObject()
      .member("type", "number")
      .member("title", "Editor API port")
      .member("description", portDescription())
      .member("required", false)
      .key("default")
      .number(tondrel::kDefaultPort)
      .key("min")
      .number(std::int64_t{1})
      .key("max")
      .number(std::int64_t{65535})
      .endObject()
      .endObject();

  json.key("keywords").beginArray().string("audio").string("editor").string("tondrel").endArray();
  json.endObject();
  return std::string(out.view());
}

struct Bundle {
  std::string_view file;
  std::string_view sha256;
};

std::string registryEntry(const std::vector<Bundle>& bundles) {
  tondrel::Buffer out;
  tondrel::JsonWriter json(out);
  json.beginObject()
      .member("$schema", "https://static.modelcontextprotocol.io/schemas/2025-12-11/server.schema.json")
      .member("name", "io.github." + std::string(kRepository))
      .member("title", kTitle)
      .member("description", tondrel::kDescription)
      .member("version", tondrel::kVersion)
      .key("repository")
      .beginObject()
      .member("url", repositoryURL())
      .member("source", "github")
      .endObject()
      .member("websiteUrl", repositoryURL());

  json.key("packages").beginArray();
  for (const Bundle& bundle : bundles) {
    json.beginObject()
        .member("registryType", "mcpb")
        .member("identifier",
                repositoryURL() + "/releases/download/v" + tondrel::kVersion + '/' + std::string(bundle.file))
        .member("version", tondrel::kVersion)
        .member("fileSha256", bundle.sha256)
        .key("transport")
        .beginObject()
        .member("type", "stdio")
        .endObject()
        .key("environmentVariables")
        .beginArray()
        .beginObject()
        .member("name", tondrel::kPortVariable)
        .member("description", portDescription())
        .member("format", "number")
        .member("default", std::to_string(tondrel::kDefaultPort))
        .member("isRequired", false)
        .endObject()
        .endArray()
        .endObject();
  }
  json.endArray().endObject();
  return std::string(out.view());
}

bool isSha256(std::string_view text) {
  return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

int usage() {
  std::fputs("usage: tondrel-mcp-manifest bundle-file | bundle | registry FILE SHA256 [FILE SHA256 ...]\n",
             stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string_view what = argc > 1 ? argv[1] : "";
  std::string out;
  if (what == "bundle-file" && argc == 2) {
    out = bundleFile();
  } else if (what == "bundle" && argc == 2) {
    out = bundleManifest();
  } else if (what == "registry" && argc >= 4 && argc % 2 == 0) {
    std::vector<Bundle> bundles;
    for (int i = 2; i < argc; i += 2) {
      if (!isBundleFile(argv[i]) || !isSha256(argv[i + 1])) {
        std::fprintf(stderr, "tondrel-mcp-manifest: %s is not a %s bundle with a SHA-256 (%s)\n", argv[i],
                     (bundlePrefix() + "<platform>-<arch>.mcpb").c_str(), argv[i + 1]);
        return 2;
      }
      bundles.push_back({argv[i], argv[i + 1]});
    }
    out = registryEntry(bundles);
  } else {
    return usage();
  }
  out += '\n';
  return std::fwrite(out.data(), 1, out.size(), stdout) == out.size() && std::fflush(stdout) == 0 ? 0 : 1;
}
