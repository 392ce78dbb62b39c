// The tests' own watch over the library's memory: what that does not see, no other test notices.
#include <cstdlib>

#include <gtest/gtest.h>

#include "FakeHost.h"
#include "Lab/LibraryHeap.h"

namespace {

constexpr size_t cleared_size = 760; // of a new request's buffer; the rest is written as packets arrive

class LibraryHeap : public testing::Test {
  protected:
    void begin_request() { host.receive(slice(request(SM_FUNCTION_RECEIVE_PRESET, pattern(992)), 0, 20)); }

    FakeHost host;
};

TEST_F(LibraryHeap, KnowsTheBlocksThatTheLibraryOwns) {
    EXPECT_EQ(library_heap::blocks(), 0U);
    begin_request();
    EXPECT_EQ(library_heap::blocks(), 1U);
    EXPECT_EQ(library_heap::size_of(shotmentor_p_ReceiveData), 600000U);
}

TEST_F(LibraryHeap, TakesNoNoticeOfTheBlocksOfOthers) {
    void* const block = std::malloc(16);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(library_heap::blocks(), 0U);
    EXPECT_EQ(library_heap::size_of(block), 0U);
    std::free(block);
}

TEST_F(LibraryHeap, CountsABlockBehindWhichSomethingWasWritten) {
    begin_request();
    if (library_heap::has_other_guards()) {
        GTEST_SKIP() << "the address sanitizer or valgrind stops at such a write";
    }
    shotmentor_p_ReceiveData[SM_REQUEST_LIMIT] = 0;
    EXPECT_EQ(library_heap::overruns(), 0U);
    host.settle();
    EXPECT_EQ(library_heap::overruns(), 1U);
    library_heap::reset();
}

TEST_F(LibraryHeap, KnowsWhichBytesNobodyWroteWhereAToolWatchesEveryByte) {
    begin_request();
    if (!library_heap::knows_unwritten()) {
        GTEST_SKIP() << "neither the memory sanitizer nor valgrind is there";
    }
    EXPECT_EQ(library_heap::first_unwritten(shotmentor_p_ReceiveData, cleared_size), nullptr);
    EXPECT_EQ(library_heap::first_unwritten(shotmentor_p_ReceiveData, cleared_size + 1),
              shotmentor_p_ReceiveData + cleared_size);
}

} // namespace
