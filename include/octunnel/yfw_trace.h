/*
 * The two trace channels of the mapping module.
 *
 * Every message goes to the levelled log ("TRC: YFW: ctx=%p,<text>") when the
 * framework's debug level asks for it, and to the numbered ring trace
 * ("#<n>: TRC: <function>:<line> ctx=%p,<text>") while the context has the
 * ring on.  Nothing is formatted by the module unless the ring is on; the log
 * channel hands its format and arguments to the logging layer, which formats
 * only what it keeps.
 *
 * Each expansion of YFW_TRC/YFW_ERR is one call site and owns one filter
 * cell, a writable static that the logging layer uses to remember its
 * decision for that site.  The module only passes the cell's address.
 */
#ifndef OCTUNNEL_YFW_TRACE_H
#define OCTUNNEL_YFW_TRACE_H

#include "octunnel/yfw_framework.h"

#include <stdio.h>

#define YFW_LEVEL_TRC 3
#define YFW_LEVEL_ERR 0
#define YFW_RING_LINE_SIZE 250
#define YFW_LSTRACE_FLAGS 0x10101000000ULL
#define YFW_FILTER_CELL_INIT (-1) /* all bits set */

#define YFW_EMIT_(level, handle, word, ctx, fn, text, ...)                                         \
    do {                                                                                           \
        static int yfw_cell_ = YFW_FILTER_CELL_INIT;                                               \
        yfw_map_ctx yfw_ctx_ = (ctx);                                                              \
        if (yfw_debug_should_log(&yfw_ctx_->dbg, (level)))                                         \
            _vlos_dt_log_filter_adv(yfw_ctx_->handle, 0, 0, 0, 0, 0, &yfw_cell_,                   \
                                    word ": YFW: ctx=%p," text,                                    \
                                    (void *)yfw_ctx_ __VA_OPT__(, ) __VA_ARGS__);                  \
        if (yfw_ctx_->ltrace_on) {                                                                 \
            char yfw_line_[YFW_RING_LINE_SIZE];                                                    \
            unsigned yfw_index_ = ret_nc_yfw_trace_index_incr();                                   \
            snprintf(yfw_line_, sizeof yfw_line_, "#%u: " word ": %s:%d ctx=%p," text, yfw_index_, \
                     (fn), __LINE__, (void *)yfw_ctx_ __VA_OPT__(, ) __VA_ARGS__);                 \
            _lstrace(yfw_ctx_->ltrace_handle, YFW_LSTRACE_FLAGS, yfw_line_);                       \
        }                                                                                          \
    } while (0)

/* TRC and ERR messages of function `fn`, with at most one argument. */
#define YFW_TRC(ctx, fn, text, ...)                                                                \
    YFW_EMIT_(YFW_LEVEL_TRC, trc_log, "TRC", ctx, fn, text __VA_OPT__(, ) __VA_ARGS__)
#define YFW_ERR(ctx, fn, text, ...)                                                                \
    YFW_EMIT_(YFW_LEVEL_ERR, err_log, "ERR", ctx, fn, text __VA_OPT__(, ) __VA_ARGS__)

/* A %s argument that may be null (a tag of a broken tree). */
#define YFW_TEXT(s) ((s) ? (s) : "(null)")

#endif
