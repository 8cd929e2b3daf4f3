// The snapshot decoded again: an agent that asks for a picture must see the project.
#include "snapshot.hpp"

#include <cairo.h>
#include <gtest/gtest.h>

#include <memory>

#include "sim_support.hpp"

namespace tondrel::sim::test {
namespace {

struct Picture {
  int width = 0, height = 0;
  std::vector<std::uint32_t> pixels;  // 0xRRGGBB
  std::uint32_t at(int x, int y) const { return pixels[std::size_t(y * width + x)] & 0xFFFFFF; }
};

Picture decode(const std::string& png) {
  struct Reader {
    const std::string* data;
    std::size_t offset = 0;
  } reader{&png};
  auto read = [](void* closure, unsigned char* out, unsigned int length) {
    auto* r = static_cast<Reader*>(closure);
    if (r->offset + length > r->data->size()) return CAIRO_STATUS_READ_ERROR;
    std::copy_n(r->data->data() + r->offset, length, out);
    r->offset += length;
    return CAIRO_STATUS_SUCCESS;
  };
  std::unique_ptr<cairo_surface_t, void (*)(cairo_surface_t*)> surface(
      cairo_image_surface_create_from_png_stream(read, &reader), cairo_surface_destroy);
  Picture picture;
  if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return picture;
  picture.width = cairo_image_surface_get_width(surface.get());
  picture.height = cairo_image_surface_get_height(surface.get());
  int stride = cairo_image_surface_get_stride(surface.get());
  const unsigned char* data = cairo_image_surface_get_data(surface.get());
  for (int y = 0; y < picture.height; ++y)
    for (int x = 0; x < picture.width; ++x)
      picture.pixels.push_back(*reinterpret_cast<const std::uint32_t*>(data + y * stride + 4 * x));
  return picture;
}

constexpr std::uint32_t kLane = 0x23272D, kClip = 0x2F6F9F, kPlayhead = 0xFF3B30;

TEST(Snapshot, ShowsTracksClipsAndThePlayheadWhereTheyAre) {
  Scratch scratch;
  Session session(0);
  Picture empty = decode(snapshotPNG(session));
  EXPECT_EQ(empty.width, 1280);
  EXPECT_EQ(empty.height, 172);  // title, ruler, one empty lane, marker names

  importTone(session, scratch);  // 0-4 s on a 4.2 s wide view: x = 150 + t / 4.2 * 1120
  edit(session, {{{"op", "track.add"}, {"kind", "midi"}}});
  session.transport({{"action", "seek"}, {"time", 3}});
  Picture two = decode(snapshotPNG(session));
  ASSERT_EQ(two.height, 268);                                              // a lane more
  EXPECT_EQ(two.at(683, 60), kClip) << std::hex << two.at(683, 60);        // the clip's name band at 2 s
  EXPECT_EQ(two.at(1250, 100), kLane) << std::hex << two.at(1250, 100);    // after the clip's end
  EXPECT_EQ(two.at(950, 120), kPlayhead) << std::hex << two.at(950, 120);  // 3 s
  EXPECT_EQ(two.at(204, 200), kLane) << std::hex << two.at(204, 200);      // the MIDI lane, no notes yet
}

}  // namespace
}  // namespace tondrel::sim::test
