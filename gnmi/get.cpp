// Get: each path, with the request's prefix, answered by a Notification of
// the subtrees it selects, read through the agent as NETCONF's <get> or
// <get-config> reads them.
#include "gnmi/service.h"

#include <optional>

#include <libyang/libyang.h>

namespace octunnel::gnmi_front {

using grpc::Status;
using grpc::StatusCode;

grpc::Status GnmiService::get(const Caller &caller, const gnmi::GetRequest &request,
                              gnmi::GetResponse &response)
{
    Json json;
    switch (request.encoding()) {
    case gnmi::JSON_IETF:
        json = Json::ietf;
        break;
    case gnmi::JSON:
        json = Json::plain;
        break;
    default:
        return {StatusCode::UNIMPLEMENTED, "the encodings offered are JSON_IETF and JSON"};
    }
    bool config_only = false;
    switch (request.type()) {
    case gnmi::GetRequest::ALL:
    case gnmi::GetRequest::STATE:
    case gnmi::GetRequest::OPERATIONAL:
        break;
    case gnmi::GetRequest::CONFIG:
        config_only = true;
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

    const serve::Outcome read = front_.agent.read(caller.session, config_only, served_filter(ctx));
    if (!read.ok())
        return status_of(read.errors.front(), path_text(request.prefix(), *paths.front()));
    lyd_node *parsed = nullptr;
    if (!read.data.empty() && lyd_parse_data_mem(ctx, read.data.c_str(), LYD_XML, LYD_PARSE_ONLY, 0,
                                                 &parsed) != LY_SUCCESS) {
        lyd_free_all(parsed);
        throw std::runtime_error("the agent's answer does not read as OpenConfig");
    }
    const std::unique_ptr<lyd_node, void (*)(lyd_node *)> tree(
        request.type() == gnmi::GetRequest::STATE || request.type() == gnmi::GetRequest::OPERATIONAL
            ? keep_state(parsed)
            : parsed,
        [](lyd_node *n) { lyd_free_all(n); });

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
        for (const lyd_node *node : nodes) {
            gnmi::Update *u = n->add_update();
            *u->mutable_path() = path_of(node);
            if (json == Json::ietf)
                u->mutable_val()->set_json_ietf_val(json_value(node, json));
            else
                u->mutable_val()->set_json_val(json_value(node, json));
        }
    }
    return Status::OK;
}

} // namespace octunnel::gnmi_front
