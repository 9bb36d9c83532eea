// A walk allocates nothing once it has run before: the module formats and
// allocates nothing with its traces off, and the host's side of a walk that
// adds what is already there reuses what it has.  Every allocation of the
// process is counted, through malloc and its kin.
#include "router.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
}

namespace {
std::atomic<bool> counting{false};
std::atomic<long> allocations{0};
} // namespace

extern "C" {
void *malloc(size_t n)
{
    if (counting)
        ++allocations;
    return __libc_malloc(n);
}
void *calloc(size_t n, size_t size)
{
    if (counting)
        ++allocations;
    return __libc_calloc(n, size);
}
void *realloc(void *p, size_t n)
{
    if (counting)
        ++allocations;
    return __libc_realloc(p, n);
}
void free(void *p)
{
    __libc_free(p);
}
}

namespace {

using namespace testing_support;

long allocations_of(const std::function<void()> &f)
{
    allocations = 0;
    counting = true;
    f();
    counting = false;
    return allocations;
}

TEST(Allocations, AWalkThatRanBeforeAllocatesNothing)
{
    yfwhost::Module module(OCTUNNEL_MODULE_PATH);
    map_function root = module.registration().oc_to_native_root;
    for (uint32_t kind : {1u, YFW_MAP_REQ_GET_CONFIG}) {
        SCOPED_TRACE(kind);
        yfwhost::Tree tree = oc_edit(3);
        yfwhost::Request req(kind, "config");
        req.add_input(tree.get());
        // The first walk builds the answer: the counting sees it.
        EXPECT_GT(
            allocations_of([&] { ASSERT_EQ(root(req.ctx(), tree.get(), req.out()), YFW_OK); }), 0);
        verrno rc = YFW_OK;
        EXPECT_EQ(allocations_of([&] {
                      for (int i = 0; i < 100 && rc == YFW_OK; ++i)
                          rc = root(req.ctx(), tree.get(), req.out());
                  }),
                  0);
        EXPECT_EQ(rc, YFW_OK);
    }
}

} // namespace
