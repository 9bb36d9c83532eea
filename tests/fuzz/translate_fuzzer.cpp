// A translation of octunnel, driven by a fuzzer: the tool's own path (the
// Translator the command line runs) on a document and the request fields
// the input chooses, held to the tool's promise rather than only to not
// crashing:
//
//   exit 0  an answer that is well-formed XML or JSON;
//   exit 1  no answer, the module's error on stderr;
//   exit 2  no answer, one line on stderr (after any notes), no file left;
//
// and the same outcome, byte for byte, whether --emissions, --log and
// --ring observe the run or not.
//
// Built once per direction and format (FUZZ_TO_OC, FUZZ_JSON).  The input
// is a header of twelve bytes and the document:
//
//   byte 0      the request kind: get-config, edit, get, or the number byte/4
//   byte 1      to-native: the router type (odd: 13, else byte/2)
//   byte 2      the read view (low two bits)
//   bytes 3-11  the marks a..i: the byte in each of the low three bytes
//
// tools/fuzz_corpus.py writes the seeds in this form.
// With libFuzzer it is a fuzz target; built without, its main() replays
// the files and directories it is given, as CI does with the inputs that
// once failed.
#include "cli/translate.h"
#include "translate/document.h"
#include "translate/install.h"

#include <libxml/parser.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <unistd.h>

namespace {

using namespace octunnel;
namespace fs = std::filesystem;

#ifdef FUZZ_TO_OC
constexpr Direction direction = Direction::to_oc;
#else
constexpr Direction direction = Direction::to_native;
#endif
#ifdef FUZZ_JSON
constexpr bool json = true;
#else
constexpr bool json = false;
#endif

constexpr std::size_t header_size = 12;

// Small enough for a fuzzer to reach, as it reaches the depth limit.
constexpr std::size_t size_limit = 64 * 1024;

struct Outcome {
    int rc;
    std::string answer;
    std::string err;
};

void silent(void *, const char *, ...) {}

struct Harness {
    Translator translator;
    fs::path dir;

    Harness()
    {
        char pattern[] = "/tmp/octunnel-fuzz-XXXXXX";
        if (mkdtemp(pattern) == nullptr)
            std::abort();
        dir = pattern;
        // libxml2 reports through the reader's own handler; the checks of
        // answers below must not print.
        xmlSetGenericErrorFunc(nullptr, silent);
    }
    ~Harness() { fs::remove_all(dir); }

    Outcome run(Options o, std::string_view doc, bool observed)
    {
        if (observed) {
            o.emissions = (dir / "emissions").string();
            o.log = (dir / "log").string();
            o.ring = (dir / "ring").string();
        }
        Input input(doc, size_limit);
        char *text = nullptr;
        std::size_t size = 0;
        std::FILE *answer = open_memstream(&text, &size);
        std::ostringstream err;
        Outcome out{translator.run(o, direction, input, answer, err), {}, err.str()};
        std::fclose(answer);
        out.answer.assign(text, size);
        std::free(text);
        return out;
    }

    std::size_t files() const
    {
        std::size_t n = 0;
        for ([[maybe_unused]] const auto &e : fs::directory_iterator(dir))
            ++n;
        return n;
    }
    void clear() const
    {
        for (const auto &e : fs::directory_iterator(dir))
            fs::remove(e.path());
    }
};

Harness &harness()
{
    static Harness h;
    return h;
}

[[noreturn]] void broken(const char *promise, const Outcome &o)
{
    std::cerr << "octunnel broke its promise: " << promise << "\nexit " << o.rc << "\nstderr:\n"
              << o.err << "answer:\n"
              << o.answer.substr(0, 4096) << '\n';
    std::abort();
}

Options options(const uint8_t *header)
{
    Options o;
    o.module = module_path(o.module);
    const char *kinds[] = {"get-config", "edit", "get"};
    o.kind_text = header[0] % 4 < 3 ? kinds[header[0] % 4] : std::to_string(header[0] / 4);
    o.router_type_text = std::to_string(header[1] % 2 == 1 ? 13 : header[1] / 2);
    o.read_view_text = std::to_string(header[2] % 4);
    for (int i = 0; i < 9; ++i) {
        o.marks_text += o.marks_text.empty() ? "" : ",";
        o.marks_text += std::string(1, static_cast<char>('a' + i)) + "=" +
                        std::to_string(header[3 + i] * 0x010101u);
    }
    o.format_text = json ? "json" : "xml";
    o.finish();
    return o;
}

bool well_formed(const std::string &answer)
{
    if (answer.empty())
        return false;
    if (json) {
        rapidjson::Document d;
        d.Parse<rapidjson::kParseValidateEncodingFlag>(answer.data(), answer.size());
        return !d.HasParseError() && d.IsObject();
    }
    xmlDocPtr doc = xmlReadMemory(answer.data(), static_cast<int>(answer.size()), nullptr, "UTF-8",
                                  XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    if (doc == nullptr)
        return false;
    xmlFreeDoc(doc);
    return true;
}

void check(const Outcome &o)
{
    switch (o.rc) {
    case exit_translated:
        if (!well_formed(o.answer))
            broken("exit 0 with an answer that is not well-formed", o);
        break;
    case exit_refused:
        if (!o.answer.empty())
            broken("exit 1 with an answer", o);
        if (o.err.find("octunnel: error ") == std::string::npos)
            broken("exit 1 without the module's error", o);
        break;
    case exit_unusable: {
        if (!o.answer.empty())
            broken("exit 2 with an answer", o);
        // Notes of the walk may come first; the failure is one line.
        std::string_view rest = o.err;
        std::size_t lines = 0;
        while (!rest.empty()) {
            std::size_t end = rest.find('\n');
            if (end == std::string_view::npos)
                broken("exit 2 with a message not ended by a new line", o);
            std::string_view line = rest.substr(0, end);
            rest.remove_prefix(end + 1);
            if (!line.starts_with("octunnel: "))
                broken("exit 2 with a message of more than one line", o);
            if (!line.starts_with("octunnel: note: ") || rest.empty())
                ++lines;
        }
        if (lines != 1)
            broken("exit 2 without exactly one line saying why", o);
        break;
    }
    default:
        broken("an exit code outside 0, 1 and 2", o);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (size < header_size)
        return -1;
    Harness &h = harness();
    const Options o = options(data);
    std::string_view doc(reinterpret_cast<const char *>(data) + header_size, size - header_size);

    Outcome plain = h.run(o, doc, false);
    check(plain);
    h.clear();
    Outcome observed = h.run(o, doc, true);
    if (observed.rc != plain.rc || observed.answer != plain.answer || observed.err != plain.err)
        broken("the outcome changed when observed", observed);
    if (observed.rc == exit_unusable ? h.files() != 0 : h.files() != 3)
        broken("the observing files were not all written, or written on exit 2", observed);
    h.clear();
    return 0;
}

#include "replay_main.h"
