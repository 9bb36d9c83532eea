#include "oper.h"

#include "xml_io.h"

#include <dirent.h>
#include <set>
#include <sys/stat.h>

namespace octunnel::serve {

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
