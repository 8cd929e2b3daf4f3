# Builds tondrel-editor-sim, the headless stand-in for the Tondrel editor's API,
# from the same source tarball as tondrel-mcp.rb. It is a formula of its own
# rather than an option of that one: homebrew-core accepts no options, and its
# libraries (libsndfile, cairo, cpp-httplib) are no business of the bridge's.
class TondrelEditorSim < Formula
  desc "Headless stand-in for the Tondrel editor's local HTTP API"
  homepage "https://github.com/tondrel/tondrel-mcp"
  url "https://github.com/tondrel/tondrel-mcp/archive/refs/tags/v0.9.0.tar.gz"
  sha256 "0000000000000000000000000000000000000000000000000000000000000000"
  license "MIT"
  head "https://github.com/tondrel/tondrel-mcp.git", branch: "main"

  depends_on "cmake" => :build
  depends_on "nlohmann-json" => :build
  depends_on "pkgconf" => :build
  depends_on "cairo"
  depends_on "cpp-httplib"
  depends_on "libsndfile"
  depends_on "simdjson"
  uses_from_macos "curl" => :build # the tree's configure step asks for its headers

  def install
    system "cmake", "-S", ".", "-B", "build", "-DTONDREL_BUILD_TESTS=OFF", "-DTONDREL_BUILD_SIM=ON",
                    *std_cmake_args
    system "cmake", "--build", "build", "--target", "tondrel-editor-sim"
    system "cmake", "--install", "build", "--component", "simulator"
  end

  test do
    # The test tone has a known shape; a WAV file of it proves libsndfile is linked and working.
    system bin/"tondrel-editor-sim", "--write-test-tone", testpath/"tone.wav"
    assert_equal "RIFF", File.binread(testpath/"tone.wav", 4)
  end
end
