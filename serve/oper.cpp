#include "oper.h"

#include "translate.h"
#include "xml_io.h"

#include <algorithm>
#include <dirent.h>
#include <set>
#include <sys/stat.h>

namespace octunnel::serve {
namespace {

// Whether a native element holds a leaf with a value that the model
// descriptions describe at its place: what a walk of the module reads.
// Stops at the first.
bool describes_a_leaf(const vidl_yfw_datatree &root)
{
    struct Step {
        const vidl_yfw_datatree *n;
        JsonSchema::Node place;
    };
    std::vector<Step> stack{{&root, models().child(models().root(), {}, root.tag)}};
    while (!stack.empty()) {
        const Step s = stack.back();
        stack.pop_back();
        if (s.place == nullptr)
            continue;
        const std::size_t kids = yfwhost::tree_child_count(s.n);
        if (kids == 0 && (s.n->present & YFW_PRESENT_VALUE) != 0)
            return true;
        for (std::size_t i = 0; i < kids; ++i) {
            const vidl_yfw_datatree &k = s.n->subtrees[i];
            stack.push_back({&k, models().child(s.place, {}, k.tag != nullptr ? k.tag : "")});
        }
    }
    return false;
}

// Why a top-level element of an operational document gives <get> nothing,
// or nothing when it may give something.  The router names its models by
// what they hold: Valmora-<name>-cfg configuration, -oper operational data.
std::string passed_over(const vidl_yfw_datatree &root)
{
    const std::string_view ns = canonical_ns(root.ns != nullptr ? root.ns : "");
    const std::string what = "its root " + element_name(root.tag != nullptr ? root.tag : "") +
                             (ns.empty() ? " in no namespace" : " in namespace " + quoted(ns));
    if (ns.ends_with("-cfg"))
        return what + " is native configuration, which <get> answers from the running "
                      "configuration alone";
    if (!native_root_known(root))
        return what + " is no operational model the module reads";
    if (!describes_a_leaf(root))
        return what + " holds no leaf of the model the module reads";
    return {};
}

// Takes out of `doc` the top-level elements that give <get> nothing;
// returns why, one line, or nothing when none was.
std::string keep_operational(Document &doc)
{
    if (doc.roots.empty())
        return "nothing of it is read: it holds no element";
    std::vector<std::string> why;
    std::erase_if(doc.roots, [&](const vidl_yfw_datatree *root) {
        std::string reason = passed_over(*root);
        if (reason.empty())
            return false;
        if (std::find(why.begin(), why.end(), reason) == why.end())
            why.push_back(std::move(reason));
        return true;
    });
    if (why.empty())
        return {};
    // A document of many elements passed over for a few reasons is told
    // of in one line of a few.
    constexpr std::size_t most = 4;
    std::string line = doc.roots.empty() ? "nothing of it is read: " : "partly read: ";
    for (std::size_t i = 0; i < why.size() && i < most; ++i)
        line += (i > 0 ? "; " : "") + one_line(why[i]);
    if (why.size() > most)
        line += "; and " + std::to_string(why.size() - most) + " more";
    return line;
}

} // namespace

OperationalData::OperationalData(std::string dir, std::function<void(const std::string &)> warn)
    : dir_(std::move(dir)), warn_(std::move(warn))
{
}

std::vector<const Node *> OperationalData::current()
{
    std::vector<const Node *> holders;
    if (dir_.empty())
        return holders;
    std::set<std::string> names;
    if (DIR *d = opendir(dir_.c_str()); d != nullptr) {
        while (const dirent *e = readdir(d)) {
            std::string_view name = e->d_name;
            if (name.size() > 4 && name.ends_with(".xml") && name.front() != '.')
                names.emplace(name);
        }
        closedir(d);
    }
    for (auto it = docs_.begin(); it != docs_.end();)
        it = names.contains(it->first) ? std::next(it) : docs_.erase(it);
    for (const std::string &name : names) {
        const std::string path = dir_ + "/" + name;
        struct stat st {};
        if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            docs_.erase(name);
            continue;
        }
        Version now{st.st_ino, st.st_size, st.st_mtim};
        Doc &doc = docs_[name];
        if (!(doc.version == now)) {
            doc.version = now;
            doc.tree.reset();
            try {
                Input input(path);
                Document read = read_document(input);
                if (const std::string why = keep_operational(read); !why.empty())
                    warn_(path + ": " + why);
                auto tree = std::make_unique<Tree>();
                adopt(*tree, read);
                doc.tree = std::move(tree);
            } catch (const InputError &e) {
                warn_(path + (e.line > 0 ? ":" + std::to_string(e.line) : std::string()) + ": " +
                      one_line(e.what()));
            } catch (const std::exception &e) {
                warn_(path + ": " + one_line(e.what()));
            }
        }
        if (doc.tree)
            holders.push_back(&doc.tree->root());
    }
    return holders;
}

} // namespace octunnel::serve
