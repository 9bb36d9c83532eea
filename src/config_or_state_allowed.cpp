// The predicate that keeps configuration and state leaves out of a read that
// asked for a view without them.
#include "conversions.h"
#include "engine/module.h"

// A guarded path is left out only when read_view is 2 and at least one of
// these marks is set; the marks are tested first, in this order.
YFW_EXPORT bool config_or_state_allowed(const yfw_map_request *r)
{
    const bool marked = (r->req_marks_i & 0x10000u) != 0 || (r->req_marks_h & 0x01u) != 0 ||
                        (r->req_marks_f & 0x03u) != 0 || (r->req_marks_e & 0x1FFu) != 0 ||
                        (r->req_marks_e & 0x600u) != 0 || (r->req_marks_a & 0x0Fu) != 0 ||
                        (r->req_marks_d & 0x03u) != 0 || (r->req_marks_d & 0x04u) != 0 ||
                        (r->req_marks_b & 0x03u) != 0 || (r->req_marks_e & 0x3F800u) != 0 ||
                        (r->req_marks_c & 0x03u) != 0 || (r->req_marks_h & 0x06u) != 0 ||
                        (r->req_marks_g & 0x0Fu) != 0;
    return !marked || r->read_view != 2;
}
