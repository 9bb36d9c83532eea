// Where --emissions, --log and --ring go, run as an operator would (often
// as root): a link is followed, a device or FIFO written in place and never
// replaced by a regular file, a regular file replaced whole with its mode;
// two outputs on one file, or one on the input, refused before anything is
// written; and an exit 2 leaves no file behind.
#include "cli/translate.h"
#include "translate/document.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <thread>

namespace {

using namespace octunnel;
namespace fs = std::filesystem;

class OutputFiles : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() / ("octunnel-outputs-" + std::to_string(getpid()));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        input_ = path("input.xml");
        std::ofstream(input_) << document();
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string path(const std::string &name) const { return (dir_ / name).string(); }
    static std::string document()
    {
        std::ifstream in(OCTUNNEL_EXAMPLES "/tunnel-state.xml");
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }

    // The tool's to-oc on the input file; the answer into `answer`, or into
    // memory.
    int run(const std::string &emissions, const std::string &log, std::string *err = nullptr,
            std::FILE *answer = nullptr)
    {
        Options o;
        o.module = OCTUNNEL_MODULE_PATH;
        o.yang_dir = OCTUNNEL_YANG_DIR;
        o.kind_text = "get";
        o.input = input_;
        o.emissions = emissions;
        o.log = log;
        o.finish();
        const std::string doc = document();
        Input input{std::string_view(doc), max_document_bytes};
        char *text = nullptr;
        std::size_t size = 0;
        std::FILE *memory = answer == nullptr ? open_memstream(&text, &size) : nullptr;
        std::ostringstream e;
        const int rc = Translator().run(o, Direction::to_oc, input, answer ? answer : memory, e);
        if (memory != nullptr) {
            std::fclose(memory);
            std::free(text);
        }
        if (err != nullptr)
            *err = e.str();
        return rc;
    }

    std::vector<std::string> names() const
    {
        std::vector<std::string> out;
        for (const auto &e : fs::directory_iterator(dir_))
            out.push_back(e.path().filename().string());
        std::sort(out.begin(), out.end());
        return out;
    }

    fs::path dir_;
    std::string input_;
};

TEST_F(OutputFiles, ALinkIsFollowedAndAFileKeepsItsMode)
{
    std::ofstream(path("target")) << "old";
    fs::permissions(path("target"), fs::perms(0640));
    fs::create_symlink("target", path("link"));
    fs::create_symlink("made-through-link", path("dangling"));
    ASSERT_EQ(run(path("link"), path("dangling")), 0);
    EXPECT_TRUE(fs::is_symlink(path("link")));
    EXPECT_TRUE(fs::is_symlink(path("dangling")));
    EXPECT_GT(fs::file_size(path("target")), 3u);
    EXPECT_EQ(fs::status(path("target")).permissions() & fs::perms::all, fs::perms(0640));
    EXPECT_GT(fs::file_size(path("made-through-link")), 0u);
    // Nothing staged is left beside them.
    EXPECT_EQ(names(), (std::vector<std::string>{"dangling", "input.xml", "link",
                                                 "made-through-link", "target"}));
}

TEST_F(OutputFiles, DevicesAndFifosAreWrittenInPlace)
{
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    std::string heard;
    std::thread reader([&] {
        std::ifstream in(path("fifo"));
        std::stringstream s;
        s << in.rdbuf();
        heard = s.str();
    });
    EXPECT_EQ(run(path("fifo"), "/dev/null"), 0);
    reader.join();
    EXPECT_NE(heard.find("\"path\""), std::string::npos) << heard;
    EXPECT_TRUE(fs::is_fifo(path("fifo")));
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    // Two outputs may share a device: nothing is lost to the other.
    EXPECT_EQ(run("/dev/null", "/dev/null"), 0);
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(OutputFiles, OneFileForTwoOutputsOrTheInputIsRefused)
{
    fs::create_symlink("same", path("to-same"));
    fs::create_symlink("input.xml", path("to-input"));
    struct Case {
        std::string emissions, log, says;
    } cases[] = {
        {path("same"), path("same"), "--log " + path("same") + " is the same file as --emissions"},
        {path("same"), path("to-same"), "is the same file as --emissions"},
        {input_, "", "--emissions " + input_ + " is the input"},
        {"", path("to-input"), "is the input"},
    };
    for (const Case &c : cases) {
        std::string err;
        EXPECT_EQ(run(c.emissions, c.log, &err), 2) << c.emissions << ' ' << c.log;
        EXPECT_NE(err.find(c.says), std::string::npos) << err;
        EXPECT_EQ(names(), (std::vector<std::string>{"input.xml", "to-input", "to-same"}));
        std::ifstream in(input_);
        std::stringstream s;
        s << in.rdbuf();
        EXPECT_EQ(s.str(), document());
    }
}

TEST_F(OutputFiles, AnAnswerThatCannotBeWrittenLeavesNoFile)
{
    std::FILE *full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    std::string err;
    EXPECT_EQ(run(path("emissions"), path("log"), &err, full), 2);
    std::fclose(full);
    EXPECT_NE(err.find("cannot write the answer"), std::string::npos) << err;
    EXPECT_EQ(names(), std::vector<std::string>{"input.xml"});
}

} // namespace
