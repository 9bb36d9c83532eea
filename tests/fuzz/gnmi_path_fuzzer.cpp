// The gNMI front's reading of paths and values (gnmi/path.h), driven by a
// fuzzer in process.  The input is a gnmi.SetRequest in protobuf's text
// format (what a client may send, in a form a fuzzer's dictionary reaches);
// its prefix, deletes, replaces and updates are read as the Set handler reads
// them, and each of their paths as a Get's against a small configuration.
// Held to:
//
// - every path or value refused is refused as a gRPC status (Refused) with
//   a message, never by another exception or a crash;
// - every path resolved selects, from the configuration, nodes whose gNMI
//   path resolves again to the same nodes, and whose value in either
//   encoding is one JSON value;
// - every edit made of a path and value is an XML document libyang reads
//   with the models, its node at the path carrying the operation.
//
// tools/fuzz_corpus.py writes the seeds; with OCTUNNEL_FUZZ_SHOW set, each
// edit and refusal goes to stderr.  Built without libFuzzer, it replays its
// inputs (replay_main.h).
#include "gnmi/path.h"
#include "translate/oc_models.h"

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>
#include <libyang/libyang.h>
#include <rapidjson/document.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

using namespace octunnel;
using namespace octunnel::gnmi_front;

const char *const configuration =
    "<interfaces "
    "xmlns=\"http://openconfig.net/yang/interfaces\"><interface><name>tunnel-ip12</name>"
    "<tunnel xmlns=\"http://openconfig.net/yang/interfaces/tunnel\"><config><src>192.0.2.1</src>"
    "<dst>198.51.100.7</dst><ttl>64</ttl></config><ipv6><addresses><address><ip>2001:db8::1</ip>"
    "<config><ip>2001:db8::1</ip><prefix-length>64</prefix-length></config><state>"
    "<ip>2001:db8::1</ip><prefix-length>64</prefix-length></state></address></addresses>"
    "</ipv6></tunnel></interface><interface><name>tunnel-ip7</name><tunnel "
    "xmlns=\"http://openconfig.net/yang/interfaces/tunnel\"><config><ttl>7</ttl></config>"
    "</tunnel></interface></interfaces>";

// Text that is no SetRequest is passed over, quietly.
class Quiet : public google::protobuf::io::ErrorCollector {
public:
    void AddError(int, google::protobuf::io::ColumnNumber, const std::string &) override {}
};

[[noreturn]] void broke(const std::string &what)
{
    std::fprintf(stderr, "octunnel broke its promise: %s\n", what.c_str());
    std::abort();
}

struct Fixture {
    std::unique_ptr<OpenConfigModels> models;
    lyd_node *tree = nullptr;

    Fixture()
    {
        ly_log_options(0);
        models = std::make_unique<OpenConfigModels>(OCTUNNEL_YANG_DIR);
        if (lyd_parse_data_mem(models->context(), configuration, LYD_XML, LYD_PARSE_ONLY, 0,
                               &tree) != LY_SUCCESS)
            broke("the fixed configuration does not parse");
    }
};

Fixture &fixture()
{
    static Fixture f;
    return f;
}

void check_get(const ly_ctx *ctx, lyd_node *tree, const gnmi::Path &prefix, const gnmi::Path &path)
{
    std::vector<Step> steps;
    try {
        steps = resolve(ctx, prefix, path);
    } catch (const Refused &r) {
        if (std::string(r.what()).empty())
            broke("a path refused without a message");
        return;
    }
    for (const lyd_node *node : select(tree, steps)) {
        const gnmi::Path again = path_of(node);
        const std::vector<lyd_node *> same = select(tree, resolve(ctx, gnmi::Path(), again));
        if (same.size() != 1 || same.front() != node)
            broke("the path of a node selected does not select it alone");
        for (const Json json : {Json::ietf, Json::plain}) {
            rapidjson::Document doc;
            doc.Parse<rapidjson::kParseIterativeFlag>(json_value(node, json).c_str());
            if (doc.HasParseError())
                broke("a value that is not JSON");
        }
    }
}

void check_edit(const ly_ctx *ctx, const gnmi::Path &prefix, const gnmi::Path &path,
                const gnmi::TypedValue *value, const char *operation)
{
    std::string text;
    try {
        text = edit_text(ctx, resolve(ctx, prefix, path), value, operation);
    } catch (const Refused &r) {
        if (std::string(r.what()).empty())
            broke("an edit refused without a message");
        if (std::getenv("OCTUNNEL_FUZZ_SHOW") != nullptr)
            std::fprintf(stderr, "refused: %s\n", r.what());
        return;
    }
    if (std::getenv("OCTUNNEL_FUZZ_SHOW") != nullptr)
        std::fprintf(stderr, "edit: %s\n", text.c_str());
    if (text.empty())
        return;
    lyd_node *edit = nullptr;
    const LY_ERR rc =
        lyd_parse_data_mem(ctx, text.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &edit);
    lyd_free_all(edit);
    if (rc != LY_SUCCESS)
        broke("an edit that libyang does not read: " + text);
    if (text.find(std::string("operation=\"") + operation + "\"") == std::string::npos)
        broke("an edit without its operation: " + text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fixture &f = fixture();
    const ly_ctx *ctx = f.models->context();
    gnmi::SetRequest request;
    google::protobuf::TextFormat::Parser parser;
    parser.AllowPartialMessage(true);
    Quiet quiet;
    parser.RecordErrorsTo(&quiet);
    if (!parser.ParseFromString(std::string(reinterpret_cast<const char *>(data), size), &request))
        return 0;
    for (const gnmi::Path &p : request.delete_()) {
        check_get(ctx, f.tree, request.prefix(), p);
        check_edit(ctx, request.prefix(), p, nullptr, "remove");
    }
    for (const gnmi::Update &u : request.replace()) {
        check_get(ctx, f.tree, request.prefix(), u.path());
        check_edit(ctx, request.prefix(), u.path(), &u.val(), "replace");
    }
    for (const gnmi::Update &u : request.update()) {
        check_get(ctx, f.tree, request.prefix(), u.path());
        check_edit(ctx, request.prefix(), u.path(), &u.val(), "merge");
    }
    return 0;
}

#include "replay_main.h"
