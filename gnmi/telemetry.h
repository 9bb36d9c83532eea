// Telemetry as gNMI streams it: the leaves under the nodes a subscription's
// paths select, each an update of its own with its full path and its JSON
// value, and what changed between two reads of the same paths, leaf by
// leaf, with a delete for each node that went away.
//
// Both walks are linear in the trees they look at: the difference pairs
// each node with its counterpart by libyang's hashed sibling lookup, and
// goes down only where a subscribed node lies.
#pragma once

#include "gnmi/path.h"

#include <gnmi.pb.h>

#include <cstddef>
#include <cstdint>
#include <vector>

struct lyd_node;

namespace octunnel::gnmi_front {

// The JSON value of a leaf as RFC 7951 writes it (numbers of 64 bits and
// decimals as strings, empty as [null]), or of a whole leaf-list (an array)
// when `node` is one of its values.  The same in JSON and JSON_IETF: only
// member names differ between the two, and a leaf has none.
std::string leaf_json(const lyd_node *node);

// Updates and deletes gathered into Notifications of one timestamp, none
// larger than about `max_bytes`, so that a change of many interfaces
// reaches a client in messages it takes (gRPC clients refuse messages over
// 4 MiB by default).
class Batch {
public:
    static constexpr std::size_t max_bytes = std::size_t{1} << 20;

    Batch(int64_t timestamp, const std::string &target, Json json)
        : timestamp_(timestamp), target_(target), json_(json)
    {
    }
    // An update of the leaf (the whole leaf-list for one of its values).
    void update(const lyd_node *leaf);
    // A delete of the node and all below it.
    void remove(const lyd_node *node);
    std::size_t size() const { return count_; }
    // The Notifications so far, in order; the batch is empty again.
    std::vector<gnmi::SubscribeResponse> take();

private:
    gnmi::Notification &current();

    int64_t timestamp_;
    std::string target_;
    Json json_;
    std::vector<gnmi::SubscribeResponse> done_;
    std::size_t bytes_ = 0; // of the last Notification
    std::size_t count_ = 0; // updates and deletes in all
};

// Of `roots` (the nodes a path selects, perhaps nested in one another
// after "..."), those no other root holds: each leaf is told once.
std::vector<const lyd_node *> outermost(const std::vector<lyd_node *> &roots);

// An update of every leaf under `roots` (a root may be a leaf itself).
void all_leaves(const std::vector<const lyd_node *> &roots, Batch &batch);

// What changed under the subscribed nodes from one read to the next: an
// update of each leaf that is new or has another value, and a delete of
// each node highest in the tree that is gone.  `before` and `after` are
// whole trees (their first top-level sibling, either null when empty);
// `roots_before` and `roots_after` what the subscription's paths select in
// each.  Without `updates`, the deletes alone (a round that tells every
// value anyway).
void changes(const lyd_node *before, const std::vector<const lyd_node *> &roots_before,
             const lyd_node *after, const std::vector<const lyd_node *> &roots_after, Batch &batch,
             bool updates = true);

} // namespace octunnel::gnmi_front
