# Builds tondrel-mcp from the release's source tarball. A release sets url and
# sha256 to that tarball; scripts/test-package checks that url names the version
# CMakeLists.txt declares. The simulator is a formula of its own,
# tondrel-editor-sim.rb, so that this one never pulls its libraries.
class TondrelMcp < Formula
  desc "MCP server that lets an AI agent drive the Tondrel audio editor"
  homepage "https://github.com/tondrel/tondrel-mcp"
  url "https://github.com/tondrel/tondrel-mcp/archive/refs/tags/v0.9.0.tar.gz"
  sha256 "0000000000000000000000000000000000000000000000000000000000000000"
  license "MIT"
  head "https://github.com/tondrel/tondrel-mcp.git", branch: "main"

  depends_on "cmake" => :build
  depends_on "simdjson"
  # libcurl is the system's, opened when the first tool call is made.
  uses_from_macos "curl"

  def install
    system "cmake", "-S", ".", "-B", "build", "-DTONDREL_BUILD_TESTS=OFF", *std_cmake_args
    system "cmake", "--build", "build"
    system "cmake", "--install", "build", "--component", "bridge"
  end

  test do
    # An initialize is answered before the editor is ever asked, so no editor is needed.
    request = '{"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}}'
    output = pipe_output(bin/"tondrel-mcp", "#{request}\n", 0)
    assert_match "\"serverInfo\"", output
  end
end
