// llsparse: rows as singly linked lists, kept ascending by addinorder.
#include <algorithm>
#include <iostream>
#include <utility>

#include "sparse/sparse_matrix.h"
#include "sparse/sparse_stream_io.h"
#include "util/fortran_format.h"

namespace krel {

llsparse::llsparse(std::int32_t m, std::optional<std::int32_t> n, std::optional<bool> lupper,
                   std::ostream* unlog_) {
    constructor_sub(m, n, lupper, unlog_);
}

void llsparse::constructor_sub(std::int32_t m, std::optional<std::int32_t> n,
                               std::optional<bool> lupper, std::ostream* unlog_) {
    destroy();
    init("LINKED LIST", m, n.value_or(m));
    unlog = unlog_ ? unlog_ : &std::cout;
    lupperstorage = lupper.value_or(false);
    heads.assign(static_cast<std::size_t>(std::max(m, 0)), none);
}

void llsparse::destroy() {
    std::vector<std::int64_t>().swap(heads);
    std::vector<node>().swap(nodes);
    destroy_gen();
}

bool llsparse::accepts(std::int32_t row, std::int32_t col, double val) const {
    if (!validvalue(row, col) || !validnonzero(val)) return false;
    if (lupperstorage && !uppervalue(row, col)) return false;
    return static_cast<std::size_t>(row) <= heads.size();
}

std::int64_t llsparse::newnode(std::int32_t col, double val, std::int64_t next) {
    nodes.push_back({col, val, next});
    return static_cast<std::int64_t>(nodes.size()) - 1;
}

void llsparse::addtohead(std::int32_t row, std::int32_t col, double val) {
    if (!accepts(row, col, val)) return;
    std::int64_t& head = heads[static_cast<std::size_t>(row - 1)];
    head = newnode(col, val, head);
}

void llsparse::addtotail(std::int32_t row, std::int32_t col, double val) {
    if (!accepts(row, col, val)) return;
    const std::size_t r = static_cast<std::size_t>(row - 1);
    std::int64_t last = heads[r];
    while (last != none && nodes[static_cast<std::size_t>(last)].next != none)
        last = nodes[static_cast<std::size_t>(last)].next;
    const std::int64_t fresh = newnode(col, val, none);
    if (last == none)
        heads[r] = fresh;
    else
        nodes[static_cast<std::size_t>(last)].next = fresh;
}

void llsparse::addinorder(std::int32_t row, std::int32_t col, double val) {
    if (!accepts(row, col, val)) return;
    const std::size_t r = static_cast<std::size_t>(row - 1);
    std::int64_t prev = none;
    std::int64_t cur = heads[r];
    while (cur != none && nodes[static_cast<std::size_t>(cur)].col < col) {
        prev = cur;
        cur = nodes[static_cast<std::size_t>(cur)].next;
    }
    if (cur != none && nodes[static_cast<std::size_t>(cur)].col == col) {
        nodes[static_cast<std::size_t>(cur)].val += val;
        return;
    }
    const std::int64_t fresh = newnode(col, val, cur);
    if (prev == none)
        heads[r] = fresh;
    else
        nodes[static_cast<std::size_t>(prev)].next = fresh;
}

double llsparse::get(std::int32_t row, std::int32_t col) const {
    if (lsymmetric && lupperstorage && col < row) std::swap(row, col);
    if (!validvalue(row, col) || static_cast<std::size_t>(row) > heads.size()) return 0.0;
    for (std::int64_t p = heads[static_cast<std::size_t>(row - 1)]; p != none;
         p = nodes[static_cast<std::size_t>(p)].next)
        if (nodes[static_cast<std::size_t>(p)].col == col)
            return nodes[static_cast<std::size_t>(p)].val;
    return 0.0;
}

std::int64_t llsparse::totalnumberofelements() const {
    std::int64_t count = 0;
    for_each([&count](std::int32_t, std::int32_t, double) { ++count; });
    return count;
}

void llsparse::multgenv(double, char, std::span<const double>, double, std::span<double>) const {
    stop(" ERROR: Multiplication mult not implemented for llsparse");
}

void llsparse::multgenm(double, char, const dmatrix&, double, dmatrix&) const {
    stop(" ERROR: Multiplication mult not implemented for llsparse");
}

void llsparse::scale(double) { stop(" ERROR: scale not implemented for llsparse"); }

void llsparse::printsquare(std::ostream* output) const {
    std::ostream& unit = output ? *output : out();
    unit << " Warning: this subroutine is not implemented yet!\n";
    unit.flush();
}

void llsparse::print(bool lint, std::ostream* output) const {
    std::ostream& unit = output ? *output : out();
    if (lint) {
        for (std::size_t r = 0; r < heads.size(); ++r) {
            unit << ' ' << r + 1 << ':';
            for (std::int64_t p = heads[r]; p != none; p = nodes[static_cast<std::size_t>(p)].next)
                unit << " (" << nodes[static_cast<std::size_t>(p)].col << ", "
                     << realtochar(nodes[static_cast<std::size_t>(p)].val) << ')';
            unit << '\n';
        }
    } else {
        for_each([&unit](std::int32_t i, std::int32_t j, double v) {
            unit << i << ' ' << j << ' ' << realtochar(v) << '\n';
        });
    }
    unit.flush();
}

void llsparse::print_idx(std::span<const std::int32_t> lidx, std::ostream* output) const {
    std::ostream& unit = output ? *output : out();
    auto name = [&lidx](std::int32_t i) {
        return static_cast<std::size_t>(i) <= lidx.size() ? lidx[static_cast<std::size_t>(i - 1)]
                                                          : i;
    };
    for_each([&](std::int32_t i, std::int32_t j, double v) {
        unit << name(i) << ' ' << name(j) << ' ' << realtochar(v) << '\n';
    });
    unit.flush();
}

}  // namespace krel
