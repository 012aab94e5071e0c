#include <gtest/gtest.h>

#include <vector>

#include "TunnelTable/ByteCursor.h"
#include "TunnelTable/Via.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {
namespace {

TEST(ByteCursorTest, IntegersAreLittleEndianInTheirWidthsAndReadBackWithinTheLength) {
   // A heap buffer of the exact length, so a read past the end would show under AddressSanitizer.
   std::vector<uint8_t> buf(22, 0xEE);
   ByteWriter w(buf.data(), buf.size());
   w.u8(0x01);
   w.u16(0x0302);
   w.u32(0x07060504);
   w.u64(0x0F0E0D0C0B0A0908);
   w.f32(1.0f);  // 0x3F800000
   w.boolean(true);
   w.boolean(false);
   w.zeros(1);
   EXPECT_EQ(w.offset(), 22u);
   EXPECT_EQ(w.remaining(), 0u);
   EXPECT_EQ(buf, (std::vector<uint8_t>{1,  2,  3,  4,  5, 6, 7,    8,    9, 10, 11,
                                        12, 13, 14, 15, 0, 0, 0x80, 0x3F, 1, 0,  0}));

   ByteReader r(buf.data(), buf.size());
   EXPECT_EQ(r.u8(), 0x01);
   EXPECT_EQ(r.u16(), 0x0302);
   EXPECT_EQ(r.u32(), 0x07060504u);
   EXPECT_EQ(r.u64(), 0x0F0E0D0C0B0A0908u);
   EXPECT_EQ(r.f32(), 1.0f);
   EXPECT_TRUE(r.boolean());
   EXPECT_FALSE(r.boolean());
   EXPECT_EQ(r.u8(), 0);
   EXPECT_EQ(r.remaining(), 0u);
   EXPECT_EQ(Testing::errorText<ByteFormatError>([&] { r.u8(); }),
             "byte form truncated: 1 bytes needed at offset 22 of 22");
   ByteReader partial(buf.data(), 3);
   EXPECT_EQ(partial.u8(), 1);
   EXPECT_THROW(partial.u32(), ByteFormatError);
   EXPECT_EQ(partial.offset(), 1u);  // a refused read does not move the cursor
}

TEST(ByteCursorTest, WriterRunningPastItsBufferIsAProgrammingError) {
   std::vector<uint8_t> buf(3);
   EXPECT_DEATH(
       {
          ByteWriter w(buf.data(), buf.size());
          w.u32(1);
       },
       "^assertion failed: n <= capacity_ - offset_ && \"byte form runs past the end of its "
       "buffer\"");
}

TEST(ByteCursorTest, TryReadersReportOverrunWithoutMoving) {
   const uint8_t src[6] = {0x10, 0x20, 0x30, 0x40, 0x50, 0x60};
   ByteReader r(src, sizeof src);
   uint32_t v32 = 0;
   uint64_t v64 = 0;
   uint16_t v16 = 0;
   uint8_t v8 = 0;
   EXPECT_TRUE(r.tryU32(v32));
   EXPECT_EQ(v32, 0x40302010u);
   EXPECT_FALSE(r.tryU32(v32));
   EXPECT_FALSE(r.tryU64(v64));
   EXPECT_EQ(r.offset(), 4u);
   EXPECT_TRUE(r.tryU16(v16));
   EXPECT_EQ(v16, 0x6050);
   EXPECT_FALSE(r.tryU8(v8));
   EXPECT_FALSE(r.trySkip(1));
   EXPECT_TRUE(r.trySkip(0));
   ByteReader bad(src + 5, 1);  // 0x60 is no boolean
   EXPECT_THROW(bad.boolean(), ByteFormatError);
}

TEST(ByteCursorTest, CollectionsAreACountThenTheLivePlaces) {
   MplsViaArray vias;
   const MplsVia a(Wirekit::IpGenAddr("10.0.0.1"), Wirekit::IntfId("Ethernet1"));
   vias.is(0, a);
   vias.is(2, a);  // place 1 is a hole holding the default via
   std::vector<uint8_t> buf(4 + 3 * 76);
   ByteWriter w(buf.data(), buf.size());
   writeCollection(w, vias);
   EXPECT_EQ(w.remaining(), 0u);
   EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + 4),
             (std::vector<uint8_t>{3, 0, 0, 0}));

   ByteReader skip(buf.data(), buf.size());
   EXPECT_TRUE(trySkipCollection<MplsVia>(skip, 600));
   EXPECT_EQ(skip.remaining(), 0u);
   ByteReader shortBy1(buf.data(), buf.size() - 1);
   EXPECT_FALSE(trySkipCollection<MplsVia>(shortBy1, 600));
   ByteReader tooMany(buf.data(), buf.size());
   EXPECT_FALSE(trySkipCollection<MplsVia>(tooMany, 2));

   MplsViaArray back;
   back.is(5, a);  // replaced, not merged
   ByteReader r(buf.data(), buf.size());
   readCollection(r, back);
   EXPECT_EQ(back, vias);

   std::vector<uint8_t> huge{0x59, 0x02, 0, 0};  // count 601
   ByteReader hr(huge.data(), huge.size());
   const std::string text =
       Testing::errorText<Vela::ArraySizeError>([&] { readCollection(hr, back); });
   EXPECT_EQ(text.rfind("expected size <= 600, instead got 601. Buffer is at address: 0x", 0), 0u)
       << text;
   EXPECT_NE(text.find("with contents: 59020000"), std::string::npos) << text;
}

}  // namespace
}  // namespace Tunnel::TunnelTable
