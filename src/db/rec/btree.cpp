#include "db/rec/btree.h"

#include <cstring>
#include <string>

#include "db/rec/io.h"

namespace tavrel::rec {
namespace {

inline uint32_t rd32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
inline void wr32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, 4); }
inline uint16_t rd16(const uint8_t* p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}
inline void wr16(uint8_t* p, uint16_t v) { std::memcpy(p, &v, 2); }

enum : uint8_t { PG_FREE = 0, PG_LEAF = 1, PG_NODE = 2 };

uint64_t g_version = 0;

}  // namespace

uint64_t btree_next_version() { return ++g_version; }

// Node layout helpers (w = entry width).
#define N_OF(p) rd16((p) + 2)
#define LEAF_E(p, i) ((p) + 12 + (size_t)(i) * w_)
#define NODE_SEP(p, i) ((p) + 12 + (size_t)(i) * (w_ + 4))
#define NODE_CHILD(p, i) ((i) == 0 ? rd32((p) + 4) : rd32(NODE_SEP(p, (i) - 1) + w_))

int BTree::create(uint32_t hash) {
  hash_ = hash;
  hw_ = 1;
  free_ = 0;
  count_ = 0;
  PageRef pg;
  uint32_t page;
  int st = alloc_page(&page, &pg);
  if (st != 0) return st;
  std::memset(pg.data(), 0, cache_->page_size());
  pg.data()[0] = PG_LEAF;
  root_ = page;
  height_ = 1;
  version_ = btree_next_version();
  return write_header();
}

int BTree::write_header() {
  PageRef pg;
  int st = cache_->get(file_, 0, &pg);
  if (st == 0) st = pg.dirty();
  if (st != 0) return st;
  uint8_t* h = pg.data();
  wr32(h, kKeyMagic);
  wr32(h + 4, 1);
  wr32(h + 8, (uint32_t)field_);
  wr32(h + 12, cache_->page_size());
  wr32(h + 16, w_);
  wr32(h + 20, root_);
  wr32(h + 24, height_);
  wr32(h + 28, count_);
  wr32(h + 32, free_);
  wr32(h + 36, hw_);
  wr32(h + 40, hash_);
  return 0;
}

int BTree::load(uint32_t hash) {
  hash_ = hash;
  PageRef pg;
  int st = cache_->get(file_, 0, &pg);
  if (st != 0) return st;
  const uint8_t* h = pg.data();
  if (rd32(h) != kKeyMagic || rd32(h + 4) != 1 || rd32(h + 8) != (uint32_t)field_ ||
      rd32(h + 12) != cache_->page_size() || rd32(h + 16) != w_ || rd32(h + 40) != hash)
    return -21;
  root_ = rd32(h + 20);
  height_ = rd32(h + 24);
  count_ = rd32(h + 28);
  free_ = rd32(h + 32);
  hw_ = rd32(h + 36);
  if (root_ == 0 || root_ >= hw_ || height_ == 0 || height_ > 64 || free_ >= hw_) return -910;
  version_ = btree_next_version();
  return 0;
}

int BTree::alloc_page(uint32_t* page, PageRef* pg) {
  int st;
  if (free_ != 0) {
    *page = free_;
    st = cache_->get(file_, free_, pg);
    if (st != 0) return st;
    if (pg->data()[0] != PG_FREE) return -910;
    free_ = rd32(pg->data() + 4);
  } else {
    *page = hw_++;
    st = cache_->get(file_, *page, pg);
    if (st != 0) return st;
  }
  st = pg->dirty();
  if (st != 0) return st;
  std::memset(pg->data(), 0, cache_->page_size());
  return 0;
}

int BTree::free_page(uint32_t page) {
  PageRef pg;
  int st = cache_->get(file_, page, &pg);
  if (st == 0) st = pg.dirty();
  if (st != 0) return st;
  std::memset(pg.data(), 0, 12);
  pg.data()[0] = PG_FREE;
  wr32(pg.data() + 4, free_);
  free_ = page;
  return 0;
}

int BTree::descend(const uint8_t* probe, bool strict, std::vector<Path>* path, PageRef* leaf, uint32_t* leaf_page) {
  uint32_t page = root_;
  for (uint32_t level = 1; level < height_; level++) {
    PageRef pg;
    int st = cache_->get(file_, page, &pg);
    if (st != 0) return st;
    const uint8_t* p = pg.data();
    if (p[0] != PG_NODE) return -910;
    // Child index = number of separators <= probe (or < probe when strict).
    int lo = 0, hi = N_OF(p);
    while (lo < hi) {
      int mid = (lo + hi) / 2;
      int c = std::memcmp(NODE_SEP(p, mid), probe, w_);
      if (c < 0 || (c == 0 && !strict))
        lo = mid + 1;
      else
        hi = mid;
    }
    if (path) path->push_back({page, lo});
    page = NODE_CHILD(p, lo);
  }
  int st = cache_->get(file_, page, leaf);
  if (st != 0) return st;
  if (leaf->data()[0] != PG_LEAF) return -910;
  *leaf_page = page;
  return 0;
}

static int leaf_search(const uint8_t* p, const uint8_t* probe, uint32_t w, bool upper) {
  int lo = 0, hi = rd16(p + 2);
  while (lo < hi) {
    int mid = (lo + hi) / 2;
    int c = std::memcmp(p + 12 + (size_t)mid * w, probe, w);
    if (c < 0 || (c == 0 && upper))
      lo = mid + 1;
    else
      hi = mid;
  }
  return lo;
}

int BTree::leaf_at(uint32_t page, int idx, int dir, uint8_t* out, bool* found, Hint* h) {
  *found = false;
  for (uint32_t guard = 0; guard <= hw_; guard++) {
    PageRef pg;
    int st = cache_->get(file_, page, &pg);
    if (st != 0) return st;
    const uint8_t* p = pg.data();
    if (p[0] != PG_LEAF) return -910;
    int n = N_OF(p);
    if (idx >= 0 && idx < n) {
      std::memcpy(out, LEAF_E(p, idx), w_);
      *found = true;
      if (h) *h = {page, (uint32_t)idx, version_};
      return 0;
    }
    uint32_t nxt = dir > 0 ? rd32(p + 8) : rd32(p + 4);
    if (nxt == 0) return 0;
    page = nxt;
    if (dir > 0) {
      idx = 0;
    } else {
      PageRef q;
      st = cache_->get(file_, page, &q);
      if (st != 0) return st;
      idx = N_OF(q.data()) - 1;
    }
  }
  return -910;
}

int BTree::seek_ge(const uint8_t* probe, uint8_t* out, bool* found, Hint* h) {
  PageRef leaf;
  uint32_t lp;
  int st = descend(probe, false, nullptr, &leaf, &lp);
  if (st != 0) return st;
  int idx = leaf_search(leaf.data(), probe, w_, false);
  leaf.release();
  return leaf_at(lp, idx, 1, out, found, h);
}

int BTree::seek_gt(const uint8_t* probe, uint8_t* out, bool* found, Hint* h) {
  PageRef leaf;
  uint32_t lp;
  int st = descend(probe, false, nullptr, &leaf, &lp);
  if (st != 0) return st;
  int idx = leaf_search(leaf.data(), probe, w_, true);
  leaf.release();
  return leaf_at(lp, idx, 1, out, found, h);
}

int BTree::seek_lt(const uint8_t* probe, uint8_t* out, bool* found, Hint* h) {
  PageRef leaf;
  uint32_t lp;
  int st = descend(probe, true, nullptr, &leaf, &lp);
  if (st != 0) return st;
  int idx = leaf_search(leaf.data(), probe, w_, false) - 1;
  leaf.release();
  return leaf_at(lp, idx, -1, out, found, h);
}

int BTree::first(uint8_t* out, bool* found, Hint* h) {
  std::vector<uint8_t> lo(w_, 0);
  return seek_ge(lo.data(), out, found, h);
}

int BTree::last(uint8_t* out, bool* found, Hint* h) {
  // Descend along the last child of every node.
  uint32_t page = root_;
  for (uint32_t level = 1; level < height_; level++) {
    PageRef pg;
    int st = cache_->get(file_, page, &pg);
    if (st != 0) return st;
    if (pg.data()[0] != PG_NODE) return -910;
    page = NODE_CHILD(pg.data(), N_OF(pg.data()));
  }
  PageRef pg;
  int st = cache_->get(file_, page, &pg);
  if (st != 0) return st;
  int n = N_OF(pg.data());
  pg.release();
  return leaf_at(page, n - 1, -1, out, found, h);
}

int BTree::step(int dir, Hint* h, uint8_t* out, bool* found, bool* used) {
  *used = false;
  if (h->version == 0 || h->version != version_) return 0;
  *used = true;
  return leaf_at(h->page, (int)h->idx + dir, dir, out, found, h);
}

int BTree::insert(const uint8_t* e) {
  std::vector<Path> path;
  PageRef leaf;
  uint32_t lp;
  int st = descend(e, false, &path, &leaf, &lp);
  if (st != 0) return st;
  uint8_t* p = leaf.data();
  int n = N_OF(p);
  int pos = leaf_search(p, e, w_, false);
  if (pos < n && std::memcmp(LEAF_E(p, pos), e, w_) == 0) return -910;
  version_ = btree_next_version();
  st = leaf.dirty();
  if (st != 0) return st;
  count_++;
  if ((uint32_t)n < leaf_cap()) {
    std::memmove(LEAF_E(p, pos + 1), LEAF_E(p, pos), (size_t)(n - pos) * w_);
    std::memcpy(LEAF_E(p, pos), e, w_);
    wr16(p + 2, (uint16_t)(n + 1));
    return write_header();
  }
  // Split the leaf. An append at the right end of the tree keeps the left page full.
  std::vector<uint8_t> all((size_t)(n + 1) * w_);
  std::memcpy(all.data(), LEAF_E(p, 0), (size_t)pos * w_);
  std::memcpy(all.data() + (size_t)pos * w_, e, w_);
  std::memcpy(all.data() + (size_t)(pos + 1) * w_, LEAF_E(p, pos), (size_t)(n - pos) * w_);
  int left = (pos == n && rd32(p + 8) == 0) ? n : (n + 1) / 2;
  PageRef rp;
  uint32_t rpage;
  st = alloc_page(&rpage, &rp);
  if (st != 0) return st;
  uint8_t* r = rp.data();
  r[0] = PG_LEAF;
  wr16(r + 2, (uint16_t)(n + 1 - left));
  std::memcpy(LEAF_E(r, 0), all.data() + (size_t)left * w_, (size_t)(n + 1 - left) * w_);
  uint32_t old_next = rd32(p + 8);
  wr32(r + 4, lp);
  wr32(r + 8, old_next);
  wr16(p + 2, (uint16_t)left);
  std::memcpy(LEAF_E(p, 0), all.data(), (size_t)left * w_);
  wr32(p + 8, rpage);
  if (old_next) {
    PageRef np;
    st = cache_->get(file_, old_next, &np);
    if (st == 0) st = np.dirty();
    if (st != 0) return st;
    wr32(np.data() + 4, rpage);
  }
  std::vector<uint8_t> sep(LEAF_E(r, 0), LEAF_E(r, 0) + w_);
  leaf.release();
  rp.release();
  // Insert (sep, right) into the parents, splitting upwards as needed.
  uint32_t right = rpage;
  for (int level = (int)path.size() - 1; level >= -1; level--) {
    if (level < 0) {
      PageRef np;
      uint32_t npage;
      st = alloc_page(&npage, &np);
      if (st != 0) return st;
      uint8_t* q = np.data();
      q[0] = PG_NODE;
      wr16(q + 2, 1);
      wr32(q + 4, root_);
      std::memcpy(NODE_SEP(q, 0), sep.data(), w_);
      wr32(NODE_SEP(q, 0) + w_, right);
      root_ = npage;
      height_++;
      break;
    }
    PageRef pp;
    st = cache_->get(file_, path[level].page, &pp);
    if (st == 0) st = pp.dirty();
    if (st != 0) return st;
    uint8_t* q = pp.data();
    int m = N_OF(q);
    int at = path[level].idx;  // new separator index; new child goes at at+1
    size_t pw = w_ + 4;
    if ((uint32_t)m < node_cap()) {
      std::memmove(NODE_SEP(q, at + 1), NODE_SEP(q, at), (size_t)(m - at) * pw);
      std::memcpy(NODE_SEP(q, at), sep.data(), w_);
      wr32(NODE_SEP(q, at) + w_, right);
      wr16(q + 2, (uint16_t)(m + 1));
      break;
    }
    // Split the internal page: pairs (sep, child) 0..m, the middle separator moves up.
    std::vector<uint8_t> pairs((size_t)(m + 1) * pw);
    std::memcpy(pairs.data(), NODE_SEP(q, 0), (size_t)at * pw);
    std::memcpy(pairs.data() + (size_t)at * pw, sep.data(), w_);
    wr32(pairs.data() + (size_t)at * pw + w_, right);
    std::memcpy(pairs.data() + (size_t)(at + 1) * pw, NODE_SEP(q, at), (size_t)(m - at) * pw);
    int mid = (m + 1) / 2;
    PageRef np;
    uint32_t npage;
    st = alloc_page(&npage, &np);
    if (st != 0) return st;
    uint8_t* s = np.data();
    s[0] = PG_NODE;
    wr32(s + 4, rd32(pairs.data() + (size_t)mid * pw + w_));
    wr16(s + 2, (uint16_t)(m - mid));
    std::memcpy(NODE_SEP(s, 0), pairs.data() + (size_t)(mid + 1) * pw, (size_t)(m - mid) * pw);
    wr16(q + 2, (uint16_t)mid);
    std::memcpy(NODE_SEP(q, 0), pairs.data(), (size_t)mid * pw);
    sep.assign(pairs.data() + (size_t)mid * pw, pairs.data() + (size_t)mid * pw + w_);
    right = npage;
  }
  return write_header();
}

int BTree::erase(const uint8_t* e) {
  std::vector<Path> path;
  PageRef leaf;
  uint32_t lp;
  int st = descend(e, false, &path, &leaf, &lp);
  if (st != 0) return st;
  uint8_t* p = leaf.data();
  int n = N_OF(p);
  int pos = leaf_search(p, e, w_, false);
  if (pos >= n || std::memcmp(LEAF_E(p, pos), e, w_) != 0) return 2;
  version_ = btree_next_version();
  st = leaf.dirty();
  if (st != 0) return st;
  count_--;
  std::memmove(LEAF_E(p, pos), LEAF_E(p, pos + 1), (size_t)(n - pos - 1) * w_);
  wr16(p + 2, (uint16_t)(n - 1));
  if (n - 1 > 0 || height_ == 1) return write_header();
  // The leaf is empty: unlink it from the chain, free it, and drop it from its parent.
  uint32_t prev = rd32(p + 4), next = rd32(p + 8);
  leaf.release();
  if (prev) {
    PageRef q;
    st = cache_->get(file_, prev, &q);
    if (st == 0) st = q.dirty();
    if (st != 0) return st;
    wr32(q.data() + 8, next);
  }
  if (next) {
    PageRef q;
    st = cache_->get(file_, next, &q);
    if (st == 0) st = q.dirty();
    if (st != 0) return st;
    wr32(q.data() + 4, prev);
  }
  st = free_page(lp);
  if (st == 0) st = remove_child(path, (int)path.size() - 1);
  if (st != 0) return st;
  // Collapse a root left with a single child.
  while (height_ > 1) {
    PageRef q;
    st = cache_->get(file_, root_, &q);
    if (st != 0) return st;
    if (N_OF(q.data()) != 0) break;
    uint32_t old = root_;
    root_ = rd32(q.data() + 4);
    height_--;
    q.release();
    st = free_page(old);
    if (st != 0) return st;
  }
  return write_header();
}

// Remove child path[level].idx from internal page path[level].page.
int BTree::remove_child(std::vector<Path>& path, int level) {
  PageRef pp;
  int st = cache_->get(file_, path[level].page, &pp);
  if (st == 0) st = pp.dirty();
  if (st != 0) return st;
  uint8_t* q = pp.data();
  int m = N_OF(q);
  int c = path[level].idx;
  size_t pw = w_ + 4;
  if (m == 0) {
    // The page loses its only child.
    uint32_t page = path[level].page;
    pp.release();
    st = free_page(page);
    if (st != 0) return st;
    if (level > 0) return remove_child(path, level - 1);
    // The whole tree is empty: start again from one empty leaf.
    PageRef lp;
    uint32_t lpage;
    st = alloc_page(&lpage, &lp);
    if (st != 0) return st;
    lp.data()[0] = PG_LEAF;
    root_ = lpage;
    height_ = 1;
    return 0;
  }
  if (c == 0) {
    wr32(q + 4, rd32(NODE_SEP(q, 0) + w_));
    std::memmove(NODE_SEP(q, 0), NODE_SEP(q, 1), (size_t)(m - 1) * pw);
  } else {
    std::memmove(NODE_SEP(q, c - 1), NODE_SEP(q, c), (size_t)(m - c) * pw);
  }
  wr16(q + 2, (uint16_t)(m - 1));
  return 0;
}

int BTree::check_node(uint32_t page, uint32_t level, const uint8_t* lo, const uint8_t* hi, uint64_t* n,
                      std::vector<uint32_t>* leaves, std::string* why) {
  if (page == 0 || page >= hw_) {
    *why = "page number out of range: " + std::to_string(page);
    return -910;
  }
  PageRef pg;
  int st = cache_->get(file_, page, &pg);
  if (st != 0) return st;
  const uint8_t* p = pg.data();
  int m = N_OF(p);
  bool leaf = level == height_;
  if (p[0] != (leaf ? PG_LEAF : PG_NODE)) {
    *why = "wrong page type at " + std::to_string(page);
    return -910;
  }
  if (leaf) {
    if ((uint32_t)m > leaf_cap() || (m == 0 && height_ > 1)) {
      *why = "bad leaf count at " + std::to_string(page);
      return -910;
    }
    for (int i = 0; i < m; i++) {
      const uint8_t* e = LEAF_E(p, i);
      if ((i > 0 && std::memcmp(LEAF_E(p, i - 1), e, w_) >= 0) || (lo && std::memcmp(e, lo, w_) < 0) ||
          (hi && std::memcmp(e, hi, w_) >= 0)) {
        *why = "leaf order broken at " + std::to_string(page);
        return -910;
      }
    }
    *n += (uint64_t)m;
    leaves->push_back(page);
    return 0;
  }
  if ((uint32_t)m > node_cap()) {
    *why = "bad node count at " + std::to_string(page);
    return -910;
  }
  std::vector<uint8_t> copy(p, p + cache_->page_size());
  pg.release();
  const uint8_t* c = copy.data();
  for (int i = 0; i <= m; i++) {
    const uint8_t* clo = i == 0 ? lo : c + 12 + (size_t)(i - 1) * (w_ + 4);
    const uint8_t* chi = i == m ? hi : c + 12 + (size_t)i * (w_ + 4);
    if (clo && chi && std::memcmp(clo, chi, w_) >= 0) {
      *why = "separator order broken at " + std::to_string(page);
      return -910;
    }
    uint32_t child = i == 0 ? rd32(c + 4) : rd32(c + 12 + (size_t)(i - 1) * (w_ + 4) + w_);
    st = check_node(child, level + 1, clo, chi, n, leaves, why);
    if (st != 0) return st;
  }
  return 0;
}

int BTree::check(std::string* why) {
  uint64_t n = 0;
  std::vector<uint32_t> leaves;
  int st = check_node(root_, 1, nullptr, nullptr, &n, &leaves, why);
  if (st != 0) return st;
  if (n != count_) {
    *why = "entry count " + std::to_string(n) + " != header " + std::to_string(count_);
    return -910;
  }
  for (size_t i = 0; i < leaves.size(); i++) {
    PageRef pg;
    st = cache_->get(file_, leaves[i], &pg);
    if (st != 0) return st;
    uint32_t prev = rd32(pg.data() + 4), next = rd32(pg.data() + 8);
    if (prev != (i ? leaves[i - 1] : 0) || next != (i + 1 < leaves.size() ? leaves[i + 1] : 0)) {
      *why = "leaf chain broken at " + std::to_string(leaves[i]);
      return -910;
    }
  }
  return 0;
}

}  // namespace tavrel::rec
