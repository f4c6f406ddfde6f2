#include "image/cmap_table.h"

#include <cstdlib>
#include <cstring>

static void _drop(colour_table_t *table)
{
    if (table && --table->users == 0)
        free(table);
}

colour_table_t *colour_table_take(tq_cmap_t *m, uint32_t palette, uint16_t vmin, uint16_t vmax,
                                  const rgb_order_t &order, int n)
{
    {
        const cmap_locked_t locked(m);
        colour_table_t *table = (colour_table_t *)m->priv;
        if (table && table->palette == palette && table->vmin == vmin && table->vmax == vmax &&
            memcmp(table->order.at, order.at, sizeof order.at) == 0) {
            table->users++;
            return table;
        }
    }
    const int last = cmap_table_last(vmin, vmax);
    if (n <= last)
        return nullptr;
    colour_table_t *table = (colour_table_t *)malloc(sizeof *table + (size_t)last * sizeof *table->colours);
    if (!table)
        return nullptr;
    table->users = 2;
    table->palette = palette;
    table->vmin = vmin;
    table->vmax = vmax;
    table->order = order;
    cmap_make_table_simd(tq_cmap_palettes[palette], order, vmin, vmax, table->colours);
    const cmap_locked_t locked(m);
    _drop((colour_table_t *)m->priv);
    m->priv = table;
    return table;
}

void colour_table_release(tq_cmap_t *m, colour_table_t *table)
{
    const cmap_locked_t locked(m);
    _drop(table);
}
