// Framing of the package stream: connection buffers, frame completeness, frames cut across receives,
// frames that can never fit, dispatch by package type, and the fatal checks on inconsistent sizes.

#include <android/log.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "kova_ipc_test_util.h"
#include "kova_test_support.h"
#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_ipc_helper.h"
#include "utils/kova_bpf_ipc_package.h"
#include "utils/kova_bpf_ipc_package_handler.h"

namespace kova::test {
namespace {

TEST(BufferStateTest, WritesAppendOnlyWhatFitsAndChangeNothingOtherwise) {
    BufferState state = MakeBuffer(12);
    EXPECT_TRUE(state.write(uint64_t{0x0102030405060708}));
    EXPECT_EQ(state.bufferDataCursor, 8u);
    EXPECT_FALSE(state.write(uint64_t{1}));
    EXPECT_FALSE(state.write(std::vector<char>(5, 'x')));
    EXPECT_EQ(state.bufferDataCursor, 8u);
    EXPECT_TRUE(state.write(std::vector<char>(4, 'y')));
    EXPECT_EQ(std::string(state.buffer.data(), 12), U64(0x0102030405060708) + "yyyy");
    EXPECT_FALSE(state.write(std::vector<char>(1, 'z')));
    EXPECT_TRUE(state.write(std::vector<char>()));
}

TEST(BufferStateTest, ReadsInPlaceAndOnlyWhatWasWritten) {
    BufferState state = MakeBuffer(16);
    Deliver(&state, "abcdef");
    char* first = state.read(2);
    ASSERT_EQ(first, state.buffer.data());
    EXPECT_EQ(state.read(5), nullptr);
    EXPECT_EQ(state.bufferCursor, 2u);
    EXPECT_EQ(state.read(4), state.buffer.data() + 2);
    EXPECT_EQ(state.read(0), state.buffer.data() + 6);
    EXPECT_EQ(state.read(17), nullptr);

    BufferState unallocated;
    EXPECT_EQ(unallocated.read(0), nullptr);
}

// Runs the frames of a buffer through an IpcPackageHandler and keeps what each type received.
class FramingTest : public ::testing::Test {
  protected:
    IpcPackageHandler MakeHandler() {
        std::map<unsigned, IpcPackageHandler::Handler> handlers;
        handlers[PACKAGE_TYPE_EVENT] = [this](int fd, char* payload, size_t size) {
            EXPECT_EQ(fd, kFd);
            events.emplace_back(payload, size);
            return eventResult;
        };
        handlers[PACKAGE_TYPE_RESPONSE] = nullptr;  // registered but empty
        return IpcPackageHandler(handlers);
    }

    // Delivers `stream` in pieces of the given sizes (the last piece repeats), compacting before each
    // receive and handling what is complete after it, as a connection's receive path does.
    void Stream(BufferState* state, const std::string& stream, const std::vector<size_t>& pieces) {
        IpcPackageHandler handler = MakeHandler();
        size_t offset = 0;
        for (size_t i = 0; offset < stream.size(); ++i) {
            CompactIpcBuffer(state);
            const size_t piece = std::min({pieces[std::min(i, pieces.size() - 1)], stream.size() - offset,
                                           static_cast<size_t>(state->freeSpace())});
            Deliver(state, stream.substr(offset, piece));
            offset += piece;
            ASSERT_EQ(handler.handleAllIpcPackageInBuffer(kFd, state), 1);
        }
    }

    static constexpr int kFd = 7;
    std::vector<std::string> events;
    int eventResult = 0;
    ErrorLogDir errorLog;
    LogCapture log;
};

TEST_F(FramingTest, SevenBytesOfAHeaderAreNotAFrameAndChangeNothing) {
    BufferState state = MakeBuffer(64);
    Deliver(&state, U64(4).substr(0, 7));
    size_t headerSize = 0;
    size_t packageSize = 1234;
    EXPECT_FALSE(CheckIpcPackageComplete(&state, &headerSize, &packageSize));
    EXPECT_EQ(headerSize, 8u);
    EXPECT_EQ(packageSize, 1234u);
    EXPECT_EQ(state.bufferCursor, 0u);
    EXPECT_EQ(state.bufferDataCursor, 7u);
}

TEST_F(FramingTest, AFrameIsCompleteOnlyWhenItsWholeBodyIsThere) {
    BufferState state = MakeBuffer(64);
    const std::string frame = EventFrame("abcd");
    size_t headerSize = 0;
    size_t packageSize = 0;
    Deliver(&state, frame.substr(0, frame.size() - 1));
    EXPECT_FALSE(CheckIpcPackageComplete(&state, &headerSize, &packageSize));
    EXPECT_EQ(packageSize, 12u);
    Deliver(&state, frame.substr(frame.size() - 1));
    EXPECT_TRUE(CheckIpcPackageComplete(&state, &headerSize, &packageSize));
    EXPECT_EQ(state.bufferCursor, 0u);  // checking does not consume
}

TEST_F(FramingTest, AZeroSizeFrameIsCompleteWithItsHeaderAlone) {
    BufferState state = MakeBuffer(16);
    Deliver(&state, U64(0));
    size_t headerSize = 0;
    size_t packageSize = 99;
    ASSERT_TRUE(CheckIpcPackageComplete(&state, &headerSize, &packageSize));
    EXPECT_EQ(packageSize, 0u);
    EXPECT_EQ(ReadCompleteIpcPackage(&state, packageSize), state.buffer.data() + 8);
    EXPECT_EQ(state.bufferCursor, 8u);
}

TEST_F(FramingTest, FramesCutAtEveryPointArriveWholeAndInOrder) {
    std::string stream;
    std::vector<std::string> sent;
    for (int i = 0; i < 40; ++i) {
        sent.push_back(EventRecord(50001 + i % 4, 4 + (i * 7) % 50, static_cast<uint8_t>(i)));
        stream += EventFrame(sent.back());
    }
    for (const size_t piece : {size_t{1}, size_t{3}, size_t{7}, size_t{8}, size_t{9}, size_t{31}, size_t{64}}) {
        SCOPED_TRACE("piece " + std::to_string(piece));
        events.clear();
        BufferState state = MakeBuffer(80);
        Stream(&state, stream, {piece});
        EXPECT_EQ(events, sent);
        EXPECT_EQ(state.bufferCursor, state.bufferDataCursor);
    }
    EXPECT_EQ(errorLog.CountCode(2), 0);
}

TEST_F(FramingTest, SeveralFramesInOneReceiveAreHandledInOrderAndAPartialOneWaits) {
    BufferState state = MakeBuffer(128);
    const std::string third = EventFrame("third");
    Deliver(&state, EventFrame("first") + PackageFrame(PACKAGE_TYPE_SPARE, "spare") + EventFrame("second") +
                            ResponseFrame(1, 0, "") + third.substr(0, 10));
    IpcPackageHandler handler = MakeHandler();
    EXPECT_EQ(handler.handleAllIpcPackageInBuffer(kFd, &state), 1);
    EXPECT_EQ(events, (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(Unread(state), third.substr(0, 10));
}

TEST_F(FramingTest, TheLargestFrameThatFitsIsTheBufferLessItsHeader) {
    BufferState state = MakeBuffer(64);
    const std::string record(64 - 16, 'r');
    Stream(&state, EventFrame(record), {64});
    EXPECT_EQ(events, std::vector<std::string>{record});
    EXPECT_EQ(errorLog.CountCode(2), 0);
}

TEST_F(FramingTest, OneByteMoreClearsTheBufferAndIsReported) {
    BufferState state = MakeBuffer(64);
    const std::string tooBig = EventFrame(std::string(64 - 15, 'r'));
    Deliver(&state, tooBig.substr(0, 20));
    const std::string dump = Kova::Bpf::ConvertToHexString(state.buffer.data(), 20);
    size_t headerSize = 0;
    size_t packageSize = 0;
    EXPECT_FALSE(CheckIpcPackageComplete(&state, &headerSize, &packageSize));
    EXPECT_EQ(state.bufferCursor, 0u);
    EXPECT_EQ(state.bufferDataCursor, 0u);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils",
                        "Ipc package too big or damage, clear buffer. packageSize: 65, cursor: 0, data: 20, "
                        "bufferSize: 64"))
            << log.Dump();
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", "Buffer hexdump: " + dump));
    EXPECT_TRUE(errorLog.HasEntry(
            2, "Ipc package damage, packageSize: 65, cursor: 0, data: 20, bufferSize: 64, Buffer hexdump: " + dump))
            << errorLog.Text();
}

TEST_F(FramingTest, ClearingDropsCompleteFramesAfterTheDamagedOne) {
    BufferState state = MakeBuffer(64);
    Deliver(&state, EventFrame("kept") + U64(1000) + EventFrame("lost"));
    IpcPackageHandler handler = MakeHandler();
    EXPECT_EQ(handler.handleAllIpcPackageInBuffer(kFd, &state), 1);
    EXPECT_EQ(events, std::vector<std::string>{"kept"});
    EXPECT_EQ(state.bufferDataCursor, 0u);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils",
                        "Ipc package too big or damage, clear buffer. packageSize: 1008, cursor: 20, data: 48, "
                        "bufferSize: 64"))
            << log.Dump();

    // The connection goes on: the next bytes are the start of a new frame.
    Stream(&state, EventFrame("after"), {64});
    EXPECT_EQ(events, (std::vector<std::string>{"kept", "after"}));
    EXPECT_EQ(errorLog.CountCode(2), 1);
}

TEST_F(FramingTest, SizesThatWrapAreDamagedNeverSmall) {
    for (const uint64_t size : {UINT64_MAX - 7, UINT64_MAX - 3, UINT64_MAX}) {
        SCOPED_TRACE(size);
        BufferState state = MakeBuffer(64);
        Deliver(&state, U64(size) + "0123456789");
        size_t headerSize = 0;
        size_t packageSize = 0;
        EXPECT_FALSE(CheckIpcPackageComplete(&state, &headerSize, &packageSize));
        EXPECT_EQ(packageSize, size);
        EXPECT_EQ(state.bufferDataCursor, 0u);
    }
    EXPECT_EQ(errorLog.CountCode(2), 3);
    EXPECT_EQ(log.CountContaining("packageSize: 0, cursor: 0, data: 18, bufferSize: 64"), 1);  // 2^64 - 8 + 8
}

TEST_F(FramingTest, AFailingHandlerStopsTheRoundAndLeavesTheLaterFrames) {
    BufferState state = MakeBuffer(128);
    Deliver(&state, EventFrame("one") + EventFrame("two"));
    eventResult = -1;
    IpcPackageHandler handler = MakeHandler();
    EXPECT_EQ(handler.handleAllIpcPackageInBuffer(kFd, &state), 0);
    EXPECT_EQ(events, std::vector<std::string>{"one"});
    EXPECT_EQ(Unread(state), EventFrame("two"));
}

TEST_F(FramingTest, TypesWithoutAHandlerAreConsumedSilently) {
    BufferState state = MakeBuffer(128);
    Deliver(&state, PackageFrame(9, "nine") + PackageFrame(PACKAGE_TYPE_REQUEST, "") + EventFrame("ev"));
    IpcPackageHandler handler = MakeHandler();
    EXPECT_EQ(handler.handleAllIpcPackageInBuffer(kFd, &state), 1);
    EXPECT_EQ(events, std::vector<std::string>{"ev"});
}

// A peer that writes inconsistent inner sizes takes the process down, by design.
using FramingDeathTest = FramingTest;

TEST_F(FramingDeathTest, ASecondLevelSizeThatDisagreesWithTheFrameIsFatal) {
    BufferState state = MakeBuffer(64);
    Deliver(&state, Frame(U32(PACKAGE_TYPE_EVENT) + U32(5) + "abcd"));
    IpcPackageHandler handler = MakeHandler();
    EXPECT_DEATH(handler.handleAllIpcPackageInBuffer(kFd, &state),
                 R"(kova_bpf_framework/utils/kova_bpf_ipc_helper\.cpp:[0-9]+\] Check failed: )"
                 R"(packagePtr->size == size - sizeof\(KovaIpcSecondLevelPackageHeader\) )");
}

TEST_F(FramingDeathTest, ABodyShorterThanTheSecondLevelHeaderIsFatal) {
    for (const std::string& body : {std::string(), std::string("\x03\0\0\0", 4)}) {
        BufferState state = MakeBuffer(16);
        Deliver(&state, Frame(body));  // at the very end of the buffer: nothing may be read past it
        ASSERT_EQ(state.bufferDataCursor, 8 + body.size());
        state.buffer.resize(state.bufferDataCursor);
        IpcPackageHandler handler = MakeHandler();
        EXPECT_DEATH(handler.handleAllIpcPackageInBuffer(kFd, &state),
                     R"(Check failed: packagePtr->size == size - sizeof\(KovaIpcSecondLevelPackageHeader\) )");
    }
}

TEST_F(FramingDeathTest, ARequestDataSizeThatDisagreesWithThePayloadIsFatalWhereTheRequestIsServed) {
    BufferState state = MakeBuffer(64);
    std::string payload = ReqPayload(1, 51, U32(50001));
    payload[8] = 3;  // dataSize 3 for 4 data bytes
    Deliver(&state, PackageFrame(PACKAGE_TYPE_REQUEST, payload));
    IpcPackageHandler handler({{PACKAGE_TYPE_REQUEST, [](int, char* data, size_t size) {
                                    ReadReqIpcPackageHeader(data, size);
                                    return 0;
                                }}});
    EXPECT_DEATH(handler.handleAllIpcPackageInBuffer(kFd, &state),
                 R"(tests/ipc_framing_test\.cpp:[0-9]+\] Check failed: \(\(KovaReqIpcPackageHeader\*\)data\)->)"
                 R"(dataSize == size - sizeof\(KovaReqIpcPackageHeader\) )");
    const std::string shortPayload = U32(1) + U32(51);
    EXPECT_DEATH(ReadReqIpcPackageHeader(shortPayload.data(), shortPayload.size()),
                 R"(Check failed: \(\(KovaReqIpcPackageHeader\*\)data\)->dataSize == )");
}

TEST(FrameCodecDeathTest, AFrameThatWasCheckedToFitButDoesNotIsFatal) {
    KovaIpcPackage package;
    package.data.assign(8, 'p');
    package.size = 8;
    BufferState noRoomForSize = MakeBuffer(7);
    EXPECT_DEATH(WriteIpcPackageToBuffer(&noRoomForSize, package),
                 R"(kova_bpf_framework/utils/kova_bpf_ipc_helper\.cpp:[0-9]+\] Check failed: )"
                 R"(bufferState->write\(ipcPackage\.size\) )");
    BufferState noRoomForData = MakeBuffer(15);
    EXPECT_DEATH(WriteIpcPackageToBuffer(&noRoomForData, package),
                 R"(Check failed: bufferState->write\(ipcPackage\.data\) )");
}

TEST(FrameCodecDeathTest, ReadingAFrameThatIsNotThereIsFatal) {
    BufferState state = MakeBuffer(16);
    Deliver(&state, "1234");
    EXPECT_DEATH(ReadCompleteIpcPackage(&state, 0),
                 R"(kova_bpf_framework/utils/kova_bpf_ipc_helper\.cpp:[0-9]+\] Check failed: )"
                 R"(readBufferState->read\(ipcPackageHeaderSize\) != nullptr )");
}

}  // namespace
}  // namespace kova::test
