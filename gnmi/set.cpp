// Set: its deletes, replaces and updates, in that order, as one edit of the
// agent: each applied to what the ones before made, all of them checked and
// committed durably before the answer, or none.
#include "gnmi/service.h"

#include <libyang/libyang.h>

namespace octunnel::gnmi_front {

using grpc::Status;
using grpc::StatusCode;

grpc::Status GnmiService::set(const Caller &caller, const gnmi::SetRequest &request,
                              gnmi::SetResponse &response)
{
    if (request.union_replace_size() > 0)
        return {StatusCode::UNIMPLEMENTED, "union_replace is not offered: replace and update are"};
    if (request.extension_size() > 0)
        return {StatusCode::UNIMPLEMENTED, "no extension of Set is offered"};
    const ly_ctx *ctx = models_->context();
    struct Operation {
        const gnmi::Path *path;
        gnmi::UpdateResult::Operation op;
        std::string config; // the edit's <config>
        serve::DefaultOperation default_op;
    };
    std::vector<Operation> ops;
    const auto add = [&](const gnmi::Path &path, gnmi::UpdateResult::Operation op,
                         const gnmi::Update *update) {
        const std::string text = path_text(request.prefix(), path);
        if (update != nullptr && !update->has_val())
            throw Refused(StatusCode::INVALID_ARGUMENT,
                          text + ": no value in 'val' (the deprecated 'value' is not taken)");
        const std::vector<Step> steps = resolve(ctx, request.prefix(), path);
        try {
            if (update == nullptr)
                // A path with nothing there is deleted all the same: no
                // parent is made, and nothing missing is an error.
                ops.push_back({&path, op, edit_text(ctx, steps, nullptr, "remove"),
                               serve::DefaultOperation::none});
            else
                ops.push_back({&path, op,
                               edit_text(ctx, steps, &update->val(),
                                         op == gnmi::UpdateResult::REPLACE ? "replace" : "merge"),
                               serve::DefaultOperation::merge});
        } catch (const Refused &r) {
            throw Refused(r.code(), text + ": " + r.what());
        }
    };
    for (const gnmi::Path &p : request.delete_())
        add(p, gnmi::UpdateResult::DELETE, nullptr);
    for (const gnmi::Update &u : request.replace())
        add(u.path(), gnmi::UpdateResult::REPLACE, &u);
    for (const gnmi::Update &u : request.update())
        add(u.path(), gnmi::UpdateResult::UPDATE, &u);
    if (ops.empty())
        return {StatusCode::INVALID_ARGUMENT, "a Set of nothing: no delete, replace or update"};

    std::vector<serve::EditStep> steps;
    for (const Operation &op : ops)
        steps.push_back({op.config, op.default_op});
    const serve::Outcome outcome = front_.agent.edit_steps(caller.session, std::move(steps));
    if (!outcome.ok())
        return status_of(outcome.errors.front(),
                         ops.size() == 1 ? path_text(request.prefix(), *ops.front().path)
                                         : "a Set of " + std::to_string(ops.size()) +
                                               " operations, none applied");
    response.set_timestamp(now_ns());
    if (request.has_prefix())
        *response.mutable_prefix() = request.prefix();
    for (const Operation &op : ops) {
        gnmi::UpdateResult *r = response.add_response();
        *r->mutable_path() = *op.path;
        r->set_op(op.op);
    }
    return Status::OK;
}

} // namespace octunnel::gnmi_front
