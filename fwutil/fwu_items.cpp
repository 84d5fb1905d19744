// Item layouts: what follows from them.
#include "fwutil/fwu_items.h"

int64_t fwu_layout_image_length(const fwu_layout &layout)
{
    int64_t length = 0;
    for (const fwu_item &item : layout.items) {
        length += static_cast<int64_t>(item.size) * item.count;
        if (length > FWU_IMAGE_LENGTH_MAX)
            return FWU_IMAGE_LENGTH_MAX;
    }
    return length;
}
