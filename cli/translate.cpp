#include "cli/translate.h"

#include "translate/install.h"
#include "translate/walk.h"

#include "cli/output_file.h"
#include "translate/document.h"
#include "translate/json_io.h"
#include "translate/json_schema.h"
#include "translate/oc_models.h"
#include "translate/xml_io.h"

#include "octunnel/model_tables.h"
#include "octunnel/yfw_namespaces.h"
#include "yfwhost/host.h"

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <libyang/libyang.h>
#include <optional>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>
#include <utility>

namespace octunnel {
namespace {

std::string source_name(const std::string &file)
{
    return file == "-" ? "<stdin>" : file;
}

// One line of JSON for each path the module added.
void write_emission(const yfwhost::Emission &e, Output &out)
{
    OutputStream stream{out};
    rapidjson::Writer<OutputStream> j(stream);
    auto string = [&](std::string_view s) {
        j.String(s.data(), static_cast<rapidjson::SizeType>(s.size()));
    };
    j.StartObject();
    j.Key("tree");
    string(e.to_out ? "out" : "request");
    j.Key("path");
    string(e.path);
    j.Key("ns");
    string(e.ns);
    j.Key("value");
    if (e.value)
        string(*e.value);
    else
        j.Null();
    j.Key("op_node");
    j.Bool(e.op_node);
    j.Key("op");
    if (e.op)
        j.Uint(*e.op);
    else
        j.Null();
    j.Key("list_entry");
    j.Uint(e.list_entry);
    j.Key("path_flag");
    j.Uint(e.path_flag);
    j.EndObject();
    out.put('\n');
}

void report_failure(verrno rc, yfwhost::Request &req, std::ostream &err)
{
    char code[16];
    std::snprintf(code, sizeof code, "0x%08x", rc);
    const char *name = yfwhost::error_name(rc);
    err << "octunnel: error " << (name != nullptr ? name : std::to_string(rc)) << " (" << code
        << ")\n";
    if (req.state().error_tag != nullptr)
        err << "error-tag: " << one_line(req.state().error_tag) << '\n';
    if (!req.error_path().empty())
        err << "error-path: " << one_line(req.error_path()) << '\n';
    if (req.state().error_text != nullptr)
        err << "error-text: " << one_line(req.state().error_text) << '\n';
}

// One walk: the request set up with the options' tracing, and what the
// module did written out at the end.
class Session {
public:
    Session(const Options &o, std::string_view out_tag, std::ostream &err)
        : o_(o), req_(o.kind, out_tag), err_(err)
    {
        o.apply_marks(req_.header());
        if (!o.emissions.empty()) {
            emissions_.emplace(o.emissions);
            req_.on_emission = [this](const yfwhost::Emission &e) {
                write_emission(e, emissions_->out());
            };
        }
        if (!o.log.empty()) {
            log_.emplace(o.log);
            req_.log_to([this](std::string_view line) {
                log_->out().put(line);
                log_->out().put('\n');
            });
        }
        if (!o.ring.empty()) {
            ring_.emplace(o.ring);
            req_.enable_ring();
        }
        req_.notes = [this](uint32_t line, std::string_view text) {
            err_ << "octunnel: note: " << source_name(o_.input);
            if (line > 0)
                err_ << ':' << line;
            err_ << ": " << one_line(text) << '\n';
        };
    }

    yfwhost::Request &request() { return req_; }

    // Writes the emissions, the log and the ring, then the answer (in JSON,
    // as `schema` types it) or the failure.
    int finish(verrno rc, const JsonSchema *schema, std::FILE *answer)
    {
        if (ring_) {
            for (const std::string &line : req_.ring()) {
                ring_->out().put(line);
                ring_->out().put('\n');
            }
        }
        // Whether the answer can be written is known before anything is:
        // the files stay unwritten when it cannot.
        Output out(answer);
        if (rc == YFW_OK)
            check_answer_text(req_.answer());
        std::optional<JsonAnswer> json;
        if (rc == YFW_OK && o_.json)
            json.emplace(req_.answer(), *schema, out);
        for (std::optional<OutputFile> *file : {&emissions_, &log_, &ring_})
            if (*file)
                (*file)->prepare();
        if (rc != YFW_OK) {
            publish();
            report_failure(rc, req_, err_);
            return exit_refused;
        }
        if (json)
            json->write();
        else
            write_document(req_.answer(), out);
        out.flush();
        // Only once the answer is out do the files take their places: an
        // answer that cannot be written leaves none of them.
        publish();
        return exit_translated;
    }

private:
    void publish()
    {
        for (std::optional<OutputFile> *file : {&emissions_, &log_, &ring_})
            if (*file)
                (*file)->publish();
    }

    const Options &o_;
    yfwhost::Request req_;
    std::ostream &err_;
    std::optional<OutputFile> emissions_, log_, ring_;
};

Document read_input(const Options &o, Input &input)
{
    return o.json ? read_json_document(input) : read_document(input);
}

// The whole text of the input, for a second reading.
std::string slurp(Input &input)
{
    std::string text;
    for (std::string_view piece = input.next(); !piece.empty(); piece = input.next())
        text.append(piece);
    return text;
}

// The JSON of the top-level nodes of an RFC 7951 document, out of its
// NETCONF envelope when it has one.
std::string json_content(const std::string &text)
{
    rapidjson::Document doc;
    doc.Parse(text.c_str(), text.size());
    if (doc.HasParseError() || !doc.IsObject() || doc.MemberCount() != 1)
        return text;
    const auto &member = *doc.MemberBegin();
    const std::string_view name(member.name.GetString(), member.name.GetStringLength());
    if (!member.value.IsObject() || (name != "ietf-netconf:config" &&
                                     name != "ietf-netconf:filter" && name != "ietf-netconf:data"))
        return text;
    rapidjson::StringBuffer out;
    rapidjson::Writer<rapidjson::StringBuffer> writer(out);
    member.value.Accept(writer);
    return std::string(out.GetString(), out.GetSize());
}

// The request against the OpenConfig models, as the agent checks it: its
// shape (a filter's too), then an edit's values.  Throws InputError naming
// the refused node, and its line where the reader knows it.
void validate(const Options &o, const Document &doc, const std::string &text, bool read)
{
    ly_log_options(LY_LOSTORE_LAST); // libyang's words come in the refusal, not on stderr
    const OpenConfigModels models(yang_dir(o.yang_dir));
    auto refuse = [](const ModelError &e) {
        throw InputError(static_cast<int>(e.line), e.tag + (e.path.empty() ? "" : " at " + e.path) +
                                                       ": " + as_sentence(e.message));
    };
    if (auto e =
            models.check(doc, read ? OpenConfigModels::Use::filter : OpenConfigModels::Use::edit))
        refuse(*e);
    if (read)
        return;
    std::optional<ModelError> invalid;
    models.parse_edit(o.json ? json_content(text) : standalone_elements(text), o.json, invalid);
    if (invalid)
        refuse(*invalid);
}

} // namespace

Translator::Translator() = default;
Translator::~Translator() = default;

const yfwhost::Module &Translator::module(const std::string &path)
{
    if (!module_ || module_path_ != path) {
        module_.reset();
        module_ = std::make_unique<yfwhost::Module>(path);
        module_path_ = path;
    }
    return *module_;
}

std::shared_future<std::shared_ptr<OpenConfigSchema>> &Translator::models(const std::string &dir)
{
    auto it = models_.find(dir);
    if (it == models_.end())
        it = models_
                 .emplace(dir, std::async(std::launch::async,
                                          [dir] { return std::make_shared<OpenConfigSchema>(dir); })
                                   .share())
                 .first;
    return it->second;
}

int Translator::run(const Options &o, Direction d, Input &input, std::FILE *answer,
                    std::ostream &err)
{
    try {
        return translate(o, d, input, answer, err);
    } catch (const InputError &e) {
        err << "octunnel: " << source_name(o.input);
        if (e.line > 0)
            err << ':' << e.line;
        err << ": " << one_line(e.what()) << '\n';
    } catch (const std::bad_alloc &) {
        err << "octunnel: out of memory\n";
    } catch (const std::exception &e) {
        err << "octunnel: " << one_line(e.what()) << '\n';
    }
    return exit_unusable;
}

int Translator::translate(const Options &o, Direction d, Input &input, std::FILE *answer,
                          std::ostream &err)
{
    check_output_paths(o.input,
                       {{"--emissions", o.emissions}, {"--log", o.log}, {"--ring", o.ring}});
    if (d == Direction::to_oc) {
        // The models that type a JSON answer load on the other core while
        // the document is read and translated.
        std::shared_future<std::shared_ptr<OpenConfigSchema>> *schema =
            o.json ? &models(yang_dir(o.yang_dir)) : nullptr;
        Document doc = read_input(o, input);
        for (const vidl_yfw_datatree *root : doc.roots)
            check_native_root(*root);

        const yfwhost::Module &mod = module(module_path(o.module));
        Session session(o, "data", err);
        yfwhost::Request &req = session.request();
        req.add_input(doc.tree.get());
        verrno rc = walk_to_oc(mod, req, doc.roots);
        return session.finish(rc, schema != nullptr ? schema->get().get() : nullptr, answer);
    }

    // An OpenConfig request to the native request tree: an edit's
    // <config>, or a read's subtree <filter>; with --validate, checked
    // against the models first, as the agent checks it.
    const bool read = o.kind == YFW_MAP_REQ_GET_CONFIG || o.kind == YFW_MAP_REQ_GET;
    Document doc;
    if (o.validate) {
        const std::string text = slurp(input);
        Input again(std::string_view(text), max_document_bytes);
        doc = read_input(o, again);
        for (const vidl_yfw_datatree *root : doc.roots)
            check_oc_root(*root);
        validate(o, doc, text, read);
    } else {
        doc = read_input(o, input);
        for (const vidl_yfw_datatree *root : doc.roots)
            check_oc_root(*root);
    }
    yfwhost::set_router_type(static_cast<int>(o.router_type));
    yfwhost::set_resolve_names(o.resolve_names);

    static const ModelSchema schema;
    const yfwhost::Module &mod = module(module_path(o.module));
    Session session(o, read ? "filter" : "config", err);
    yfwhost::Request &req = session.request();
    req.add_input(doc.tree.get());
    verrno rc = walk_to_native(mod, req, doc.roots);
    return session.finish(rc, &schema, answer);
}

} // namespace octunnel
