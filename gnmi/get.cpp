// Get: each path, with the request's prefix, answered by a Notification of
// the subtrees it selects, read through the agent as NETCONF's <get> or
// <get-config> reads them.
#include "gnmi/service.h"
#include "gnmi/telemetry.h"

#include <libyang/libyang.h>

namespace octunnel::gnmi_front {

using grpc::Status;
using grpc::StatusCode;

void DataFree::operator()(lyd_node *n) const
{
    lyd_free_all(n);
}

grpc::Status encoding_of(gnmi::Encoding encoding, Json &json)
{
    switch (encoding) {
    case gnmi::JSON_IETF:
        json = Json::ietf;
        return Status::OK;
    case gnmi::JSON:
        json = Json::plain;
        return Status::OK;
    default:
        return {StatusCode::UNIMPLEMENTED, "the encodings offered are JSON_IETF and JSON"};
    }
}

void add_updates(const std::vector<lyd_node *> &nodes, Json json, gnmi::Notification &n)
{
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        const lyd_node *node = nodes[i];
        const bool list_value = node->schema != nullptr && node->schema->nodetype == LYS_LEAFLIST;
        // A leaf-list is one update, of all its values: a path to it
        // selects each of them, next to one another.
        if (list_value && i > 0 && nodes[i - 1]->schema == node->schema &&
            lyd_parent(nodes[i - 1]) == lyd_parent(node))
            continue;
        gnmi::Update *u = n.add_update();
        *u->mutable_path() = path_of(node);
        const std::string value = list_value ? leaf_json(node) : json_value(node, json);
        if (json == Json::ietf)
            u->mutable_val()->set_json_ietf_val(value);
        else
            u->mutable_val()->set_json_val(value);
    }
}

grpc::Status GnmiService::read(const Caller &caller, gnmi::GetRequest::DataType type,
                               const std::string &path,
                               const std::vector<const std::vector<Step> *> &paths, Data &tree)
{
    const ly_ctx *ctx = models_->context();
    const serve::Outcome read = front_.agent.read(caller.session, type == gnmi::GetRequest::CONFIG,
                                                  read_filter(ctx, paths));
    if (!read.ok())
        return status_of(read.errors.front(), path);
    lyd_node *parsed = nullptr;
    if (!read.data.empty() && lyd_parse_data_mem(ctx, read.data.c_str(), LYD_XML, LYD_PARSE_ONLY, 0,
                                                 &parsed) != LY_SUCCESS) {
        lyd_free_all(parsed);
        throw std::runtime_error("the agent's answer does not read as OpenConfig");
    }
    tree.reset(type == gnmi::GetRequest::STATE || type == gnmi::GetRequest::OPERATIONAL
                   ? keep_state(parsed)
                   : parsed);
    return Status::OK;
}

grpc::Status GnmiService::get(const Caller &caller, const gnmi::GetRequest &request,
                              gnmi::GetResponse &response)
{
    Json json;
    if (Status s = encoding_of(request.encoding(), json); !s.ok())
        return s;
    switch (request.type()) {
    case gnmi::GetRequest::ALL:
    case gnmi::GetRequest::STATE:
    case gnmi::GetRequest::OPERATIONAL:
    case gnmi::GetRequest::CONFIG:
        break;
    default:
        return {StatusCode::INVALID_ARGUMENT, "a Get's type is ALL, CONFIG, STATE or OPERATIONAL"};
    }
    const ly_ctx *ctx = models_->context();
    // Every path is resolved before anything is read: one the models do not
    // have refuses the whole request.
    const gnmi::Path root;
    std::vector<const gnmi::Path *> paths;
    for (const gnmi::Path &p : request.path())
        paths.push_back(&p);
    if (paths.empty())
        paths.push_back(&root);
    std::vector<std::vector<Step>> resolved;
    for (const gnmi::Path *p : paths)
        resolved.push_back(resolve(ctx, request.prefix(), *p));

    std::vector<const std::vector<Step> *> selecting;
    for (const std::vector<Step> &steps : resolved)
        selecting.push_back(&steps);
    Data tree;
    if (Status s = read(caller, request.type(), path_text(request.prefix(), *paths.front()),
                        selecting, tree);
        !s.ok())
        return s;
    const int64_t now = now_ns();
    for (std::size_t i = 0; i < paths.size(); ++i) {
        const std::vector<lyd_node *> nodes = select(tree.get(), resolved[i]);
        if (nodes.empty())
            return {StatusCode::NOT_FOUND,
                    path_text(request.prefix(), *paths[i]) + ": no data at this path"};
        gnmi::Notification *n = response.add_notification();
        n->set_timestamp(now);
        if (!request.prefix().target().empty())
            n->mutable_prefix()->set_target(request.prefix().target());
        add_updates(nodes, json, *n);
    }
    return Status::OK;
}

} // namespace octunnel::gnmi_front
