// The walks of one request through the mapping module, apart from reading
// and writing documents: the tool and the agent's fronts run the same ones.
// The request must have been given the trees the roots belong to
// (Request::add_input).
#pragma once

#include "octunnel/yfw_types.h"

#include <span>
#include <stdexcept>

namespace yfwhost {
class Module;
class Request;
} // namespace yfwhost

namespace octunnel {

// A module that lacks a function its models' tables name.
struct ModuleError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Native data to the OpenConfig answer: each root goes to the walker of its
// native root.  Throws InputError for a root that no walker takes.
verrno walk_to_oc(const yfwhost::Module &mod, yfwhost::Request &req,
                  std::span<vidl_yfw_datatree *const> roots);
// Whether walk_to_oc takes `root`.
bool native_root_known(const vidl_yfw_datatree &root);
// Throws InputError, naming the roots it takes, where walk_to_oc does not
// take `root`.
void check_native_root(const vidl_yfw_datatree &root);
// An OpenConfig request on /interfaces to the native request tree.  Throws
// InputError for a root other than the OpenConfig <interfaces>.
verrno walk_to_native(const yfwhost::Module &mod, yfwhost::Request &req,
                      std::span<vidl_yfw_datatree *const> roots);
void check_oc_root(const vidl_yfw_datatree &root);

} // namespace octunnel
