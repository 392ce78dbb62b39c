// Function 2: the phone asks for the screennail picture of a preset. Where the picture is cut, what becomes of files
// that cannot be read, and the peculiar replies to requests that are refused.
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CommandLines.h"

namespace {

// Two markers that together begin a JPEG stream: start of image, define quantisation table.
const Bytes mark = {0xFF, 0xD8, 0xFF, 0xDB};

// A file-size reply buffer has 12 bytes of header and 38 spare ones.
constexpr size_t spare = 38;

Bytes picture_reply(int32_t custom_id, const Bytes& picture) {
    return words({0x1002, 12 + static_cast<int32_t>(picture.size()), custom_id}) + picture;
}

// The size of a file as the standard file calls report it.
long told_size(const std::string& path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
    if (file == nullptr) {
        return -1;
    }
    std::fseek(file.get(), 0, SEEK_END);
    return std::ftell(file.get());
}

// An emulator opens a file that its 32 bits cannot measure; a kernel refuses to.
bool opens_unmeasured(const std::string& path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
    return file != nullptr && told_size(path) < 0;
}

bool reading_fails(const std::string& path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
    char byte = 0;
    return file != nullptr && std::fread(&byte, 1, 1, file.get()) == 0 && std::ferror(file.get()) != 0;
}

class Screennail : public testing::Test {
  protected:
    Screennail() {
        char pattern_of_name[] = "/tmp/nails-XXXXXX";
        EXPECT_NE(mkdtemp(pattern_of_name), nullptr);
        directory = pattern_of_name;
        host.folder = directory;
    }

    ~Screennail() override {
        for (const std::string& path : written) {
            unlink(path.c_str());
        }
        rmdir(directory.c_str());
    }

    std::string write(const Bytes& content, const std::string& name = "nail.jpg") {
        const std::string path = directory + "/" + name;
        std::ofstream file(path, std::ios::binary);
        file.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
        EXPECT_TRUE(file.good()) << path;
        written.push_back(path);
        return path;
    }

    // Writes a file that has a size but no content.
    std::string write_sparse(off64_t size) {
        const std::string path = write({}, "sparse.jpg");
        is_sparse_written = truncate64(path.c_str(), size) == 0;
        return path;
    }

    // Makes the camera store preset 7 with this picture.
    void store(const std::string& path) {
        tag_custom_info stored = preset(7);
        put_text(stored.screennail_path, path);
        host.presets = {stored};
    }

    void store_picture(const Bytes& content) { store(write(content)); }

    // Asks for preset 7, which the phone calls 5, and expects the success that it always gets.
    void ask() { EXPECT_EQ(host.receive(picture_request(7, 5)), SM_RETURN_TRUE); }

    // What the command logs and calls for preset 7: the size and the path of its file as they were found, whether the
    // file could not be read, and the size of the picture that is sent.
    static Transcript sent(long size, const std::string& path, bool is_unreadable, long sent_size) {
        const Transcript error = is_unreadable ? Transcript{"ERROR ALG_SMM JPG open error"} : Transcript{};
        const std::string length = std::to_string(12 + sent_size);
        return joined({{"CYAN ALG_SMM ADE_SM_Send_Preset() custom_ID=7, applocal_ID=5", "__ui_get_preset_info(7, 5)",
                        "PLAIN ALG_SMM __ui_get_preset_info() ",
                        "PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) size=" + std::to_string(size + 50) + ", add=#1",
                        "PLAIN ALG_SMM open file: " + path + " image size : " + std::to_string(size)},
                       error,
                       {"PLAIN ALG_SMM trim screennail image size : " + std::to_string(sent_size),
                        "PLAIN ALG_SMM ADE_ShotMentor_SEND preset funcNum=1002, sendlength=" + length + ", custom_ID=7",
                        "bt_send_msgs(" + length + ")", "PLAIN ALG_SMM shotmentor_p_Full_Q_NUM : 0"}});
    }

    // What it asks the services, to send a picture of so many bytes.
    static Transcript picture_calls(long sent_size) {
        return {"__ui_get_preset_info(7, 5)", "bt_send_msgs(" + std::to_string(12 + sent_size) + ")"};
    }

    // Asks for a picture and expects this part of it.
    void expect_sent(const Bytes& content, size_t sent_size) {
        host.settle();
        host.forget();
        store_picture(content);
        ask();
        EXPECT_EQ(host.calls(), picture_calls(static_cast<long>(sent_size)));
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, picture_reply(7, slice(content, 0, sent_size)));
        EXPECT_EQ(host.replies[0].buffer, picture_reply(7, slice(content, 0, sent_size)) +
                                              slice(content, sent_size, content.size() - sent_size) + zeros(spare));
    }

    // Asks for a picture that cannot be read.
    void expect_empty(const std::string& path, long size, bool is_unreadable) {
        store(path);
        const int files_before = open_files();
        ask();
        EXPECT_EQ(open_files(), files_before);
        EXPECT_EQ(command_lines(host.transcript), sent(size, path, is_unreadable, 0));
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_EQ(host.replies[0].bytes, words({0x1002, 12, 7}));
    }

    FakeHost host;
    std::string directory;
    std::vector<std::string> written;
    bool is_sparse_written = false;
};

TEST_F(Screennail, IsOneConversationFromThePacketToTheSend) {
    store_picture(mark + pattern(96));
    ask();
    const std::string path = written[0];
    EXPECT_EQ(host.transcript, (Transcript{
                                   "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager funcN=2",
                                   "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager sm_total_length=16",
                                   "PLAIN ALG_SMM shotmentor_p_ReceiveData add=#1",
                                   "GREEN ALG_SMM ADE_ShotMentor_Combine_BTData length=16, sm_BT_combine_length=16",
                                   "GREEN ALG_SMM ADE_ShotMentor_Receive_Manager funcNum=2, length=16",
                                   "CYAN ALG_SMM ADE_SM_Send_Preset() custom_ID=7, applocal_ID=5",
                                   "__ui_get_preset_info(7, 5)",
                                   "PLAIN ALG_SMM __ui_get_preset_info() ",
                                   "PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) size=150, add=#2",
                                   "PLAIN ALG_SMM open file: " + path + " image size : 100",
                                   "PLAIN ALG_SMM trim screennail image size : 100",
                                   "PLAIN ALG_SMM ADE_ShotMentor_SEND preset funcNum=1002, sendlength=112, custom_ID=7",
                                   "bt_send_msgs(112)",
                                   "PLAIN ALG_SMM shotmentor_p_Full_Q_NUM : 0",
                                   "PLAIN ALG_SMM free Receive add=#1",
                               }));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, picture_reply(7, mark + pattern(96)));
}

TEST_F(Screennail, IsOneConversationWhenItIsCut) {
    store_picture(mark + pattern(10) + mark + pattern(20) + mark + pattern(40));
    ask();
    EXPECT_EQ(command_lines(host.transcript), sent(82, written[0], false, 38));
}

// ---- Where the picture is cut ---------------------------------------------------------------------------------------

TEST_F(Screennail, WithUpToTwoStreamsIsSentWhole) {
    expect_sent(pattern(1000), 1000);
    expect_sent(pattern(10) + mark + pattern(20), 34);
    expect_sent(pattern(10) + mark + pattern(20) + mark + pattern(30), 68);
}

TEST_F(Screennail, IsCutBeforeItsThirdStream) {
    expect_sent(pattern(10) + mark + pattern(20) + mark + pattern(30) + mark + pattern(40), 68);
    expect_sent(pattern(1) + mark + pattern(2) + mark + pattern(3) + mark + mark + mark, 14);
}

TEST_F(Screennail, CountsAStreamAtItsVeryStart) {
    expect_sent(mark + pattern(20) + mark + pattern(30), 58);
    expect_sent(mark + pattern(20) + mark + pattern(30) + mark, 58);
}

TEST_F(Screennail, OfThreeMarksInARowIsCutAtTheThird) {
    expect_sent(mark + mark, 8);
    expect_sent(mark + mark + mark, 8);
    expect_sent(mark + mark + mark + mark, 8);
}

TEST_F(Screennail, IsCutBeforeAThirdStreamAtItsVeryEnd) {
    expect_sent(pattern(5) + mark + mark + pattern(100) + mark, 113);
}

TEST_F(Screennail, EndingInTheMiddleOfAThirdMarkIsSentWhole) {
    for (size_t bytes = 1; bytes < mark.size(); ++bytes) {
        expect_sent(mark + mark + pattern(9) + slice(mark, 0, bytes), 17 + bytes);
    }
}

TEST_F(Screennail, IsNotCutAtBytesThatOnlyResembleAMark) {
    const Bytes resembling[] = {{0xFF, 0xD8, 0xFF, 0xDA}, {0xFF, 0xD8, 0xFF, 0xE0}, {0xFF, 0xD8, 0xFE, 0xDB},
                                {0xFF, 0xD9, 0xFF, 0xDB}, {0xFE, 0xD8, 0xFF, 0xDB}, {0xFF, 0xD8, 0xDB, 0xFF}};
    for (const Bytes& bytes : resembling) {
        expect_sent(mark + mark + bytes + pattern(10), 22);
    }
}

TEST_F(Screennail, FindsAMarkBehindHalfOfOne) {
    expect_sent(mark + mark + slice(mark, 0, 1) + mark, 9);
    expect_sent(mark + mark + slice(mark, 0, 2) + mark, 10);
    expect_sent(mark + mark + slice(mark, 0, 3) + mark, 11);
}

TEST_F(Screennail, OfOneByteIsSentWhole) {
    expect_sent({0xFF}, 1);
}

TEST_F(Screennail, LargerThanAnOrdinaryReplyBufferIsSentWhole) {
    expect_sent(pattern(100000), 100000);
}

TEST_F(Screennail, OfAnEmptyFileIsTheHeadAlone) {
    expect_sent({}, 0);
    EXPECT_EQ(host.replies[0].bytes, words({0x1002, 12, 7}));
}

// ---- Files that cannot be read --------------------------------------------------------------------------------------

TEST_F(Screennail, OfAMissingFileIsTheHeadAlone) {
    expect_empty(directory + "/missing.jpg", 0, true);
    EXPECT_EQ(host.replies[0].buffer, words({0x1002, 12, 7}) + zeros(spare));
}

TEST_F(Screennail, OfAnEmptyPathIsTheHeadAlone) {
    expect_empty("", 0, true);
}

// What lies in a directory's place depends on the file system: one reports a size that no buffer can have, one a size
// that cannot be read, one no size at all, and then there is nothing to read either.
TEST_F(Screennail, OfADirectoryIsTheHeadAlone) {
    host.is_on_file = false; // whether it can be read is up to the file system, and to an emulator
    for (const std::string& path : {directory, std::string("/dev/shm"), std::string("/proc")}) {
        if (!reading_fails(path)) {
            continue; // not a directory of this system
        }
        const long size = told_size(path);
        SCOPED_TRACE(path + " has size " + std::to_string(size));
        host.settle();
        host.forget();
        const bool is_too_large = size > 2147483597;
        expect_empty(path, is_too_large || size < 0 ? 0 : size, size > 0);
    }
}

TEST_F(Screennail, OfAFileWhoseReadFailsIsTheHeadAlone) {
    const std::string path = "/sys/class/net/lo/speed"; // the loopback has none: it has a size, but cannot be read
    if (told_size(path) <= 0 || !reading_fails(path)) {
        GTEST_SKIP() << path << " does not fail here";
    }
    const long size = told_size(path);
    expect_empty(path, size, true);
    EXPECT_EQ(host.replies[0].buffer, words({0x1002, 12, 7}) + zeros(static_cast<size_t>(size) + spare));
}

// A pseudo file can have a size and hold less, which is a short read without an error.
TEST_F(Screennail, OfAFileWithLessContentThanItsSizeIsFilledWithZeros) {
    const std::string path = "/sys/class/net/lo/mtu";
    std::ifstream file(path, std::ios::binary);
    const Bytes content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const long size = told_size(path);
    if (content.empty() || size <= static_cast<long>(content.size())) {
        GTEST_SKIP() << path << " is as large as its content here";
    }
    store(path);
    ask();
    EXPECT_EQ(host.calls(), picture_calls(size));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, picture_reply(7, content + zeros(static_cast<size_t>(size) - content.size())));
}

TEST_F(Screennail, OfAFileTooLargeForAnyReplyIsTheHeadAlone) {
    const std::string path = write_sparse(2147483598);
    if (!is_sparse_written) {
        GTEST_SKIP() << "no file of 2147483598 bytes can be made here";
    }
    expect_empty(path, 0, true);
}

TEST_F(Screennail, OfAFileBeyond32BitsIsTheHeadAlone) {
    host.is_on_file = false; // an emulator's answer is not a kernel's
    // In 32 bits the second size would be 100 and the third 2147483597.
    for (const int64_t size : {int64_t{1} << 32, (int64_t{1} << 32) + 100, (int64_t{1} << 32) + 2147483597}) {
        SCOPED_TRACE(size);
        host.settle();
        host.forget();
        const std::string path = write_sparse(size);
        if (!is_sparse_written) {
            GTEST_SKIP() << "no file of " << size << " bytes can be made here";
        }
        expect_empty(path, 0, !opens_unmeasured(path));
    }
}

TEST_F(Screennail, OfTheLargestFileThatAReplyCanHoldAsksForThatBuffer) {
    const std::string path = write_sparse(2147483597);
    if (!is_sparse_written) {
        GTEST_SKIP() << "no file of 2147483597 bytes can be made here";
    }
    store(path);
    host.refuse_allocation(1); // two gigabytes are asked for, not used
    EXPECT_EQ(ADE_SM_Send_Preset(7, 5), SM_RETURN_TRUE);
    EXPECT_EQ(command_lines(host.transcript),
              (Transcript{"CYAN ALG_SMM ADE_SM_Send_Preset() custom_ID=7, applocal_ID=5", "__ui_get_preset_info(7, 5)",
                          "PLAIN ALG_SMM __ui_get_preset_info() ",
                          "PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) size=2147483647, add=null",
                          "ERROR ALG_SMM malloc ERR size=2147483647"}));
}

TEST_F(Screennail, ReadsAPathWithoutANulAs52Characters) {
    const std::string name(52 - directory.size() - 1, 'n');
    const std::string path = write(pattern(30), name);
    ASSERT_EQ(path.size(), 52u);
    store(path);
    ask();
    EXPECT_EQ(command_lines(host.transcript), sent(30, path, false, 30));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, picture_reply(7, pattern(30)));
}

TEST_F(Screennail, LeavesNoFileOpen) {
    store_picture(pattern(100));
    const int before = open_files();
    ask();
    EXPECT_EQ(open_files(), before);
}

TEST_F(Screennail, LeavesNoFileOpenWhenItsReplyIsRefused) {
    store_picture(pattern(100));
    const int before = open_files();
    host.refuse_allocation(1);
    EXPECT_EQ(ADE_SM_Send_Preset(7, 5), SM_RETURN_TRUE);
    EXPECT_EQ(open_files(), before);
    EXPECT_EQ(host.calls(), (Transcript{"__ui_get_preset_info(7, 5)"}));
}

// ---- What the service is asked and answers --------------------------------------------------------------------------

TEST_F(Screennail, CarriesTheIdentityThatTheServiceWrote) {
    store_picture(pattern(10));
    host.fill_preset_info = [](tag_custom_info& record) { record.custom_id = -4711; };
    ask();
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, picture_reply(-4711, pattern(10)));
    EXPECT_EQ(command_lines(host.transcript)[6],
              "PLAIN ALG_SMM ADE_ShotMentor_SEND preset funcNum=1002, sendlength=22, custom_ID=-4711");
}

TEST_F(Screennail, IsLookedUpWithARecordThatHoldsThePhonesIdentityAlone) {
    tag_custom_info seen;
    std::memset(&seen, 0xA5, sizeof seen);
    host.preset_info_answer = true;
    host.fill_preset_info = [&seen](tag_custom_info& record) { seen = record; };
    EXPECT_EQ(host.receive(picture_request(7, -5)), SM_RETURN_TRUE);
    tag_custom_info expected{};
    expected.applocal_id = -5;
    EXPECT_EQ(image(seen), image(expected));
}

TEST_F(Screennail, OfAPresetThatTheServiceKnowsButDoesNotFillIsTheHeadAlone) {
    host.preset_info_answer = true;
    ask();
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_EQ(host.replies[0].bytes, words({0x1002, 12, 0}));
}

TEST_F(Screennail, OfTheLargestIdentitiesIsAskedFor) {
    EXPECT_EQ(host.receive(picture_request(INT_MAX, INT_MIN)), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), (Transcript{"__ui_get_preset_info(2147483647, -2147483648)", "bt_send_msgs(0)"}));
}

TEST_F(Screennail, OfAPresetThatTheCameraDoesNotHaveIsAnError) {
    EXPECT_EQ(host.receive(picture_request(7, 5)), SM_RETURN_TRUE);
    EXPECT_EQ(command_lines(host.transcript),
              (Transcript{"CYAN ALG_SMM ADE_SM_Send_Preset() custom_ID=7, applocal_ID=5", "__ui_get_preset_info(7, 5)",
                          "ERROR ALG_SMM SM_RETURN_LOCALN_ERR", "bt_send_msgs(0)"}));
    ASSERT_EQ(host.replies.size(), 1u);
    EXPECT_TRUE(host.replies[0].bytes.empty());
    EXPECT_EQ(host.replies[0].buffer, words({0x1002, 12, -6, 0, 0}));
}

TEST_F(Screennail, OfAnIdentityThatIsNotPositiveIsAnErrorWithoutALookUp) {
    for (const int id : {0, -1, INT_MIN}) {
        SCOPED_TRACE(id);
        host.settle();
        host.forget();
        EXPECT_EQ(host.receive(picture_request(id, 5)), SM_RETURN_TRUE);
        EXPECT_EQ(command_lines(host.transcript),
                  (Transcript{"CYAN ALG_SMM ADE_SM_Send_Preset() custom_ID=" + std::to_string(id) + ", applocal_ID=5",
                              "ERROR ALG_SMM SM_RETURN_PRESETN_ERR", "bt_send_msgs(0)"}));
        ASSERT_EQ(host.replies.size(), 1u);
        EXPECT_TRUE(host.replies[0].bytes.empty());
        EXPECT_EQ(host.replies[0].buffer, words({0x1002, 12, -5, 0, 0}));
    }
}

TEST_F(Screennail, RequestWithoutAPayloadReadsIdentity0) {
    EXPECT_EQ(host.receive(request(SM_FUNCTION_SEND_PRESET)), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls(), Transcript{"bt_send_msgs(0)"});
}

TEST_F(Screennail, RequestWithoutThePhonesIdentityReadsItAs0) {
    EXPECT_EQ(host.receive(request(SM_FUNCTION_SEND_PRESET, words({7}))), SM_RETURN_TRUE);
    EXPECT_EQ(host.calls()[0], "__ui_get_preset_info(7, 0)");
}

// ---- Replies that are still unconfirmed -----------------------------------------------------------------------------

TEST_F(Screennail, ParksAReplyThatIsStillUnconfirmed) {
    store_picture(pattern(10));
    const std::string path = written[0];
    ask();
    ask();
    Transcript second = sent(10, path, false, 10);
    second.insert(second.begin() + 3,
                  "ERROR ALG_SMM not receive EVT_BT_APP_SEND_RESULT => save add=#1 at QUEUE, sum # of QUEUE=1");
    second[4] = "PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) size=60, add=#2";
    second.back() = "PLAIN ALG_SMM shotmentor_p_Full_Q_NUM : 1";
    EXPECT_EQ(command_lines(host.transcript), joined({sent(10, path, false, 10), second}));
}

TEST_F(Screennail, ErrorReplacesAnUnconfirmedReplyWhichIsNeverFreed) {
    const Bytes refused_requests[] = {picture_request(0, 5), picture_request(9, 5)};
    for (const Bytes& refused : refused_requests) {
        store_picture(pattern(10));
        ask();
        host.receive(refused);
        EXPECT_EQ(shotmentor_p_Full_Q_NUM, 0);
        ASSERT_EQ(host.replies.size(), 2u);
        EXPECT_EQ(shotmentor_p_FullData, host.replies[1].message.data);
        EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
        EXPECT_EQ(host.confirm(), SM_RETURN_FAIL);
        EXPECT_EQ(host.freed, std::vector<int>{1});
        EXPECT_EQ(host.blocks_owned(), 1u);

        std::free(host.replies[0].message.data);
        host.forget();
    }
}

TEST_F(Screennail, ErrorLeavesTheQueueAsItIs) {
    store_picture(pattern(10));
    ask();
    ask();
    host.receive(picture_request(0, 5));
    EXPECT_EQ(shotmentor_p_Full_Q_NUM, 1);
    ASSERT_EQ(host.replies.size(), 3u);
    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.confirm(), SM_RETURN_FAIL);
    EXPECT_EQ(host.freed, (std::vector<int>{0, 2}));
    std::free(host.replies[1].message.data);
}

TEST_F(Screennail, OwnsNothingButTheReplyWhenItHasBeenSent) {
    store_picture(pattern(1000));
    ask();
    EXPECT_EQ(host.blocks_owned(), 1u);
    EXPECT_EQ(host.bytes_owned(), 1050u);
    EXPECT_EQ(host.confirm(), SM_RETURN_TRUE);
    EXPECT_EQ(host.blocks_owned(), 0u);
}

// ---- Borders --------------------------------------------------------------------------------------------------------

TEST_F(Screennail, IsAskedForByIdentitiesBeyond16Bits) {
    for (const int id : {1, 255, 256, 32768, 65535, 65536, 65543, 1 << 24}) {
        SCOPED_TRACE(id);
        host.settle();
        host.forget();
        EXPECT_EQ(host.receive(picture_request(id, -id)), SM_RETURN_TRUE);
        const std::string number = std::to_string(id);
        EXPECT_EQ(host.calls(),
                  (Transcript{"__ui_get_preset_info(" + number + ", -" + number + ")", "bt_send_msgs(0)"}));
        EXPECT_EQ(host.replies.back().buffer, words({0x1002, 12, SM_RETURN_LOCALN_ERR, 0, 0}));
    }
}

TEST_F(Screennail, OfANegativeIdentityIsRefusedWhateverItsLowerBitsAre) {
    for (const int id : {-2, -65536, -65529, INT_MIN + 7}) {
        SCOPED_TRACE(id);
        host.settle();
        host.forget();
        EXPECT_EQ(host.receive(picture_request(id, 5)), SM_RETURN_TRUE);
        EXPECT_EQ(host.calls(), Transcript{"bt_send_msgs(0)"});
        EXPECT_EQ(host.replies.back().buffer, words({0x1002, 12, SM_RETURN_PRESETN_ERR, 0, 0}));
    }
}

TEST_F(Screennail, IsCutWhereverTheThirdStreamBegins) {
    for (const size_t between : {0u, 1u, 250u, 65520u, 65536u, 70000u}) {
        SCOPED_TRACE(between);
        expect_sent(mark + mark + Bytes(between, 7) + mark + pattern(5), 8 + between);
    }
}

TEST_F(Screennail, OfEachSizeAroundTheRepliesUsualOneGetsABufferOfItsOwn) {
    for (const size_t size : {1u, 38u, 29949u, 29950u, 29951u, 29988u, 65486u, 65535u, 65536u}) {
        SCOPED_TRACE(size);
        expect_sent(Bytes(size, 7), size);
        EXPECT_EQ(host.replies.back().buffer.size(), size + 50);
    }
}

TEST_F(Screennail, CarriesTheIdentityOfTheRecordNotTheOneThatWasAskedFor) {
    store_picture(pattern(10));
    host.fill_preset_info = [](tag_custom_info& record) {
        record.custom_id = 70000;
        record.applocal_id = 12;
        record.preset_num = 34;
    };
    ask();
    EXPECT_EQ(host.replies.back().bytes, picture_reply(70000, pattern(10)));
}

TEST_F(Screennail, ShowsLargeNumbersWholeInTheLog) {
    store_picture(mark + mark + Bytes(70000, 7) + mark + Bytes(100000, 8));
    host.fill_preset_info = [](tag_custom_info& record) { record.custom_id = -0x12345678; };
    host.presets[0].custom_id = 0x12345678;
    host.receive(picture_request(0x12345678, -0x7654321));
    // The third stream begins at 4 + 4 + 70000, and 100004 bytes of it are not sent.
    EXPECT_EQ(command_lines(host.transcript),
              (Transcript{"CYAN ALG_SMM ADE_SM_Send_Preset() custom_ID=305419896, applocal_ID=-124076833",
                          "__ui_get_preset_info(305419896, -124076833)", "PLAIN ALG_SMM __ui_get_preset_info() ",
                          "PLAIN ALG_SMM malloc(SM_MALLOC_SIZE) size=170062, add=#1",
                          "PLAIN ALG_SMM open file: " + written.back() + " image size : 170012",
                          "PLAIN ALG_SMM trim screennail image size : 70008",
                          "PLAIN ALG_SMM ADE_ShotMentor_SEND preset funcNum=1002, sendlength=70020, "
                          "custom_ID=-305419896",
                          "bt_send_msgs(70020)", "PLAIN ALG_SMM shotmentor_p_Full_Q_NUM : 0"}));
}

TEST_F(Screennail, ShowsTheWholeSizeOfALargeReplyThatIsRefused) {
    store_picture(Bytes(70000, 7));
    host.refuse_allocation(2);
    ask();
    EXPECT_EQ(lines_with("malloc ERR", host.log()), Transcript{"ERROR ALG_SMM malloc ERR size=70050"});
}

} // namespace
