// The ring-buffer injector: given bytes arrive as one record each, in order, through a real ring
// buffer, and every way a write can fail says so.

#include <bpf/bpf.h>
#include <gtest/gtest.h>

#include "kova_bpf_fixture.h"
#include "kova_kernel_objects.h"
#include "kova_ringbuf_injector.h"
#include "kova_test_support.h"

namespace kova::test {
namespace {

using namespace std::chrono_literals;

class RingBufferInjectorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
    }
    static android::base::unique_fd NewRing(uint32_t size) {
        return android::base::unique_fd(bpf_map_create(BPF_MAP_TYPE_RINGBUF, "kova_inj_test", 0, 0, size, nullptr));
    }
};

TEST_F(RingBufferInjectorTest, WritesEachGivenByteStringAsOneRecordInOrder) {
    android::base::unique_fd ring = NewRing(1 << 20);
    ASSERT_TRUE(ring.ok());
    RingBufferInjector injector(ring.get());
    ASSERT_TRUE(injector.ok()) << injector.error();
    RingReader reader(ring.get());
    ASSERT_TRUE(reader.ok());

    const std::string small("\x05\x00\x00\x00", 4);
    std::string odd(13, '\0');
    for (size_t i = 0; i < odd.size(); ++i) odd[i] = static_cast<char>(0xa0 + i);
    std::string largest(RingBufferInjector::MaxRecord(), 'x');
    largest.back() = 'y';
    ASSERT_TRUE(injector.Write(small)) << injector.lastResult();
    ASSERT_TRUE(injector.Write(odd)) << injector.lastResult();
    ASSERT_TRUE(injector.Write(largest)) << injector.lastResult();

    EXPECT_EQ(reader.Poll(1000ms), 3);
    EXPECT_EQ(reader.records(), (std::vector<std::string>{small, odd, largest}));
}

TEST_F(RingBufferInjectorTest, RefusesEmptyAndOversizedRecordsAndReportsAFullRing) {
    android::base::unique_fd ring = NewRing(4096);
    ASSERT_TRUE(ring.ok());
    RingBufferInjector injector(ring.get());
    ASSERT_TRUE(injector.ok()) << injector.error();

    EXPECT_FALSE(injector.Write(std::string()));
    EXPECT_EQ(injector.lastResult(), -EINVAL);
    EXPECT_FALSE(injector.Write(std::string(RingBufferInjector::MaxRecord() + 1, 'x')));
    EXPECT_EQ(injector.lastResult(), -EINVAL);

    EXPECT_TRUE(injector.Write(std::string(3000, 'a')));
    EXPECT_FALSE(injector.Write(std::string(3000, 'b')));
    EXPECT_EQ(injector.lastResult(), -EAGAIN);

    RingReader reader(ring.get());
    EXPECT_EQ(reader.Drain(), 1);
    EXPECT_TRUE(injector.Write(std::string(3000, 'c'))) << "room again once the consumer has read";
}

TEST_F(RingBufferInjectorTest, CannotLoadForAMapThatIsNotARingBuffer) {
    android::base::unique_fd array(bpf_map_create(BPF_MAP_TYPE_ARRAY, "kova_inj_bad", 4, 8, 1, nullptr));
    ASSERT_TRUE(array.ok());
    RingBufferInjector injector(array.get());
    EXPECT_FALSE(injector.ok());
    EXPECT_FALSE(injector.error().empty());
    EXPECT_FALSE(injector.Write(std::string("abcd")));
}

}  // namespace
}  // namespace kova::test
