#include "proto/kfsm_records.h"

#include <rpc/xdr.h>

#include <cerrno>
#include <cstring>

size_t kfsm_info_image_size(uint32_t cmd) {
  switch (cmd) {
    case KFSM_CMD_XSTAT: return KFSM_XSTAT_IMAGE;
    case KFSM_CMD_INVAL: return KFSM_INVAL_IMAGE;
    case KFSM_CMD_MKVIEW: return KFSM_MKVIEWTAG_IMAGE;
    case KFSM_CMD_RMTAG: return KFSM_RMTAG_IMAGE;
    case KFSM_CMD_ROOT: return KFSM_ROOT_INFO_IMAGE;
    case KFSM_CMD_SUFFIX: return KFSM_SUFFIX_INFO_IMAGE;
    case KFSM_CMD_MOUNT: return KFSM_MOUNT_IMAGE;
    case KFSM_CMD_UMOUNT: return KFSM_UMOUNT_IMAGE;
    default: return 0;
  }
}

kfsm_strbuf kfsm_strbuf_of(const char* s) {
  if (!s) return kfsm_strbuf{nullptr, 0, 0};
  uint32_t l = static_cast<uint32_t>(strlen(s));
  return kfsm_strbuf{const_cast<char*>(s), l, l + 1};
}

kfsm_strbuf kfsm_strbuf_empty() {
  static char empty[1] = {0};
  return kfsm_strbuf{empty, 0, 1};
}

void kfsm_put_u16(uint8_t* p, uint16_t v) { memcpy(p, &v, 2); }
void kfsm_put_u32(uint8_t* p, uint32_t v) { memcpy(p, &v, 4); }
void kfsm_put_u64(uint8_t* p, uint64_t v) { memcpy(p, &v, 8); }
uint16_t kfsm_get_u16(const uint8_t* p) {
  uint16_t v;
  memcpy(&v, p, 2);
  return v;
}
uint32_t kfsm_get_u32(const uint8_t* p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return v;
}
uint64_t kfsm_get_u64(const uint8_t* p) {
  uint64_t v;
  memcpy(&v, p, 8);
  return v;
}

namespace {

uint8_t* bytes(std::string& s) { return reinterpret_cast<uint8_t*>(s.data()); }
const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

// Builds images whose strings live in one heap.
struct Builder {
  std::string heap;

  // An input string. False for a string that cannot be sent as it is.
  bool put_in(uint8_t* p, const kfsm_strbuf& sb) {
    if (!sb.s) {
      if (sb.l != 0) return false;
      kfsm_put_u32(p, 0);
      kfsm_put_u32(p + 4, 0);
      kfsm_put_u32(p + 8, sb.m);
      return true;
    }
    if (sb.l > KFSM_STR_MAX || sb.l >= sb.m) return false;
    if (memchr(sb.s, 0, sb.l) != nullptr) return false;
    kfsm_put_u32(p, static_cast<uint32_t>(heap.size() + 1));
    kfsm_put_u32(p + 4, sb.l);
    kfsm_put_u32(p + 8, sb.m);
    heap.append(sb.s, sb.l);
    heap.push_back('\0');
    return true;
  }
  // A text placed by the answering side (outputs): the slot, its length and the caller's capacity.
  void put_text(uint8_t* p, const std::string& text, uint32_t m) {
    kfsm_put_u32(p, static_cast<uint32_t>(heap.size() + 1));
    kfsm_put_u32(p + 4, static_cast<uint32_t>(text.size()));
    kfsm_put_u32(p + 8, m);
    heap.append(text);
    heap.push_back('\0');
  }
  static void put_out(uint8_t* p, const kfsm_strbuf& sb) {
    kfsm_put_u32(p, 0);
    kfsm_put_u32(p + 4, 0);
    kfsm_put_u32(p + 8, sb.m);
  }
};

bool encode_info(uint32_t cmd, const void* infop, Builder& b, uint8_t* img) {
  switch (cmd) {
    case KFSM_CMD_MKVIEW: {
      auto* i = static_cast<const kfsm_mkviewtag_info*>(infop);
      if (!b.put_in(img + 0, i->viewtag) || !b.put_in(img + 12, i->spath_u) || !b.put_in(img + 24, i->spath_k) ||
          !b.put_in(img + 36, i->host) || !b.put_in(img + 48, i->rpath))
        return false;
      memcpy(img + 60, i->uuid.bytes, 16);
      memcpy(img + 76, i->zero, 28);
      kfsm_put_u32(img + 104, i->flags);
      return true;
    }
    case KFSM_CMD_MOUNT: {
      auto* i = static_cast<const kfsm_mount_info*>(infop);
      kfsm_put_u16(img + 0, i->version);
      kfsm_put_u16(img + 2, i->size);
      kfsm_put_u32(img + 4, i->word4);
      if (!b.put_in(img + 8, i->mount_point) || !b.put_in(img + 20, i->host)) return false;
      kfsm_put_u32(img + 32, i->word32);
      if (!b.put_in(img + 36, i->view_string1) || !b.put_in(img + 48, i->view_string2) ||
          !b.put_in(img + 60, i->storage))
        return false;
      memcpy(img + 72, i->family.bytes, 16);
      kfsm_put_u32(img + 88, i->word88);
      kfsm_put_u32(img + 92, i->word92);
      memcpy(img + 96, i->zero96, 28);
      memcpy(img + 124, i->replica.bytes, 16);
      memcpy(img + 140, i->zero140, 108);
      return true;
    }
    case KFSM_CMD_UMOUNT: {
      auto* i = static_cast<const kfsm_umount_info*>(infop);
      if (!b.put_in(img + 0, i->mount_point)) return false;
      memcpy(img + 12, i->replica.bytes, 16);
      return true;
    }
    case KFSM_CMD_INVAL: {
      auto* i = static_cast<const kfsm_inval_info*>(infop);
      kfsm_put_u32(img + 0, i->version);
      memcpy(img + 4, i->silo.bytes, 16);
      kfsm_put_u32(img + 20, i->kind);
      memcpy(img + 24, i->obj.bytes, 16);
      return b.put_in(img + 40, i->name);
    }
    case KFSM_CMD_XSTAT: {
      // Everything in it is output; the image carries the caller's values (normally zero).
      auto* i = static_cast<const kfsm_xstat_info*>(infop);
      kfsm_put_u32(img + 0, 0);
      memcpy(img + 4, i->oid.bytes, 16);
      memcpy(img + 20, i->uuid.bytes, 16);
      kfsm_put_u32(img + 36, static_cast<uint32_t>(i->flag));
      memcpy(img + 40, i->unused40, 8);
      memcpy(img + 48, i->uuid2.bytes, 16);
      memcpy(img + 64, i->unused64, 24);
      return true;
    }
    case KFSM_CMD_RMTAG:
      return b.put_in(img, *static_cast<const kfsm_strbuf*>(infop));
    case KFSM_CMD_ROOT: {
      auto* sb = static_cast<const kfsm_strbuf*>(infop);
      Builder::put_out(img, sb[0]);
      return b.put_in(img + 12, sb[1]);
    }
    case KFSM_CMD_SUFFIX:
      Builder::put_out(img, *static_cast<const kfsm_strbuf*>(infop));
      return true;
    default:
      return false;
  }
}

void put_block(uint8_t* p, uint32_t cmd, uint32_t flags, uint32_t infolen, int32_t status) {
  kfsm_put_u32(p + 0, cmd);
  kfsm_put_u32(p + 4, flags);
  kfsm_put_u32(p + 32, infolen);
  kfsm_put_u32(p + 36, 0);
  kfsm_put_u32(p + 40, static_cast<uint32_t>(status));
}

// Copies an output text into a caller's buffer of capacity m: at most m - 1 bytes and a NUL.
void copy_out(kfsm_strbuf* sb, const std::string& text) {
  if (!sb->s || sb->m == 0) return;
  size_t n = text.size() < sb->m - 1 ? text.size() : sb->m - 1;
  memcpy(sb->s, text.data(), n);
  sb->s[n] = '\0';
  sb->l = static_cast<uint32_t>(n);
}

}  // namespace

int kfsm_command_encode(const kfsmcmd_block& b, std::string* image) {
  size_t want = kfsm_info_image_size(b.cmd);
  if (want == 0 || b.infolen != want || !b.infop) return EINVAL;
  Builder heap;
  std::string block(KFSM_BLOCK_IMAGE, '\0');
  std::string info(want, '\0');
  put_block(bytes(block), b.cmd, b.flags, b.infolen, b.status);
  if (!heap.put_in(bytes(block) + 8, b.pn) || !heap.put_in(bytes(block) + 20, b.pn2)) return EINVAL;
  if (!encode_info(b.cmd, b.infop, heap, bytes(info))) return EINVAL;
  image->clear();
  image->reserve(block.size() + info.size() + heap.heap.size());
  image->append(block).append(info).append(heap.heap);
  return 0;
}

bool kfsm_read_str(const std::string& image, size_t off, const std::string& heap, kfsm_str* out) {
  if (off + KFSM_STRBUF_IMAGE > image.size()) return false;
  const uint8_t* p = bytes(image) + off;
  uint32_t slot = kfsm_get_u32(p), l = kfsm_get_u32(p + 4), m = kfsm_get_u32(p + 8);
  out->m = m;
  out->text.clear();
  if (slot == 0) {
    out->present = false;
    return l == 0;
  }
  if (l > KFSM_STR_MAX || l >= m) return false;
  size_t o = slot - 1;
  if (o > heap.size() || heap.size() - o < size_t(l) + 1) return false;
  if (heap[o + l] != '\0' || memchr(heap.data() + o, 0, l) != nullptr) return false;
  out->present = true;
  out->text.assign(heap, o, l);
  return true;
}

int kfsm_result_apply(const uint8_t* data, size_t len, kfsmcmd_block* b, int* err) {
  if (len < 4 + KFSM_BLOCK_IMAGE) return EPROTO;
  *err = static_cast<int32_t>(kfsm_get_u32(data));
  const uint8_t* blk = data + 4;
  if (kfsm_get_u32(blk) != b->cmd || kfsm_get_u32(blk + 32) != b->infolen) return EPROTO;
  if (len < 4 + KFSM_BLOCK_IMAGE + b->infolen) return EPROTO;
  b->status = static_cast<int32_t>(kfsm_get_u32(blk + 40));
  if (*err != 0) return 0;
  std::string info(reinterpret_cast<const char*>(blk + KFSM_BLOCK_IMAGE), b->infolen);
  std::string heap(reinterpret_cast<const char*>(blk + KFSM_BLOCK_IMAGE + b->infolen),
                   len - 4 - KFSM_BLOCK_IMAGE - b->infolen);
  const uint8_t* ip = bytes(info);
  switch (b->cmd) {
    case KFSM_CMD_XSTAT: {
      auto* x = static_cast<kfsm_xstat_info*>(b->infop);
      uint32_t slot = kfsm_get_u32(ip);
      if (slot != 0) {
        if (slot - 1 >= heap.size()) return EPROTO;
        view_vstat_t vs;
        memset(&vs, 0, sizeof vs);
        XDR xdrs;
        xdrmem_create(&xdrs, heap.data() + (slot - 1), static_cast<u_int>(heap.size() - (slot - 1)), XDR_DECODE);
        bool ok = xdr_view_vstat_t(&xdrs, &vs);
        xdr_destroy(&xdrs);
        if (!ok) return EPROTO;
        if (x->vstat) *x->vstat = vs;
      }
      memcpy(x->oid.bytes, ip + 4, 16);
      memcpy(x->uuid.bytes, ip + 20, 16);
      x->flag = static_cast<int32_t>(kfsm_get_u32(ip + 36));
      memcpy(x->uuid2.bytes, ip + 48, 16);
      return 0;
    }
    case KFSM_CMD_ROOT:
    case KFSM_CMD_SUFFIX: {
      kfsm_str s;
      if (!kfsm_read_str(info, 0, heap, &s)) return EPROTO;
      if (b->status == 0) copy_out(static_cast<kfsm_strbuf*>(b->infop), s.text);
      return 0;
    }
    default:
      return 0;
  }
}

int kfsm_command_decode(const uint8_t* data, size_t len, kfsm_command* out) {
  if (len < KFSM_BLOCK_IMAGE) return EPROTO;
  out->cmd = kfsm_get_u32(data);
  out->flags = kfsm_get_u32(data + 4);
  out->infolen = kfsm_get_u32(data + 32);
  out->status = static_cast<int32_t>(kfsm_get_u32(data + 40));
  size_t want = kfsm_info_image_size(out->cmd);
  if (want == 0 || out->infolen != want || len < KFSM_BLOCK_IMAGE + want) return EPROTO;
  std::string block(reinterpret_cast<const char*>(data), KFSM_BLOCK_IMAGE);
  out->info.assign(reinterpret_cast<const char*>(data + KFSM_BLOCK_IMAGE), want);
  out->heap.assign(reinterpret_cast<const char*>(data + KFSM_BLOCK_IMAGE + want), len - KFSM_BLOCK_IMAGE - want);
  if (!kfsm_read_str(block, 8, out->heap, &out->pn) || !kfsm_read_str(block, 20, out->heap, &out->pn2)) return EPROTO;
  return 0;
}

bool kfsm_parse_mkview(const kfsm_command& c, kfsm_mkview_args* out) {
  if (c.cmd != KFSM_CMD_MKVIEW || c.info.size() != KFSM_MKVIEWTAG_IMAGE) return false;
  kfsm_str s[5];
  for (int i = 0; i < 5; ++i)
    if (!kfsm_read_str(c.info, size_t(i) * 12, c.heap, &s[i])) return false;
  out->tag = s[0].text;
  out->spath_u = s[1].text;
  out->spath_k = s[2].text;
  out->host = s[3].text;
  out->rpath = s[4].text;
  memcpy(out->uuid.bytes, bytes(c.info) + 60, 16);
  out->flags = kfsm_get_u32(bytes(c.info) + 104);
  return true;
}

bool kfsm_parse_mount(const kfsm_command& c, kfsm_mount_args* out) {
  if (c.cmd != KFSM_CMD_MOUNT || c.info.size() != KFSM_MOUNT_IMAGE) return false;
  const uint8_t* p = bytes(c.info);
  kfsm_str mp, host, v1, v2, stg;
  if (!kfsm_read_str(c.info, 8, c.heap, &mp) || !kfsm_read_str(c.info, 20, c.heap, &host) ||
      !kfsm_read_str(c.info, 36, c.heap, &v1) || !kfsm_read_str(c.info, 48, c.heap, &v2) ||
      !kfsm_read_str(c.info, 60, c.heap, &stg))
    return false;
  out->version = kfsm_get_u16(p);
  out->size = kfsm_get_u16(p + 2);
  out->word4 = kfsm_get_u32(p + 4);
  out->word32 = kfsm_get_u32(p + 32);
  out->word88 = kfsm_get_u32(p + 88);
  out->word92 = kfsm_get_u32(p + 92);
  out->mount_point = mp.text;
  out->host = host.text;
  out->view_string1 = v1.text;
  out->view_string2 = v2.text;
  out->storage = stg.text;
  memcpy(out->family.bytes, p + 72, 16);
  memcpy(out->replica.bytes, p + 124, 16);
  return true;
}

bool kfsm_parse_umount(const kfsm_command& c, kfsm_umount_args* out) {
  if (c.cmd != KFSM_CMD_UMOUNT || c.info.size() != KFSM_UMOUNT_IMAGE) return false;
  kfsm_str mp;
  if (!kfsm_read_str(c.info, 0, c.heap, &mp)) return false;
  out->mount_point = mp.text;
  memcpy(out->replica.bytes, bytes(c.info) + 12, 16);
  return true;
}

bool kfsm_parse_inval(const kfsm_command& c, kfsm_inval_args* out) {
  if (c.cmd != KFSM_CMD_INVAL || c.info.size() != KFSM_INVAL_IMAGE) return false;
  const uint8_t* p = bytes(c.info);
  kfsm_str name;
  if (!kfsm_read_str(c.info, 40, c.heap, &name)) return false;
  out->version = kfsm_get_u32(p);
  memcpy(out->silo.bytes, p + 4, 16);
  out->kind = kfsm_get_u32(p + 20);
  memcpy(out->obj.bytes, p + 24, 16);
  out->name = name.text;
  return true;
}

bool kfsm_parse_rmtag(const kfsm_command& c, std::string* tag) {
  if (c.cmd != KFSM_CMD_RMTAG || c.info.size() != KFSM_RMTAG_IMAGE) return false;
  kfsm_str s;
  if (!kfsm_read_str(c.info, 0, c.heap, &s)) return false;
  *tag = s.text;
  return true;
}

uint32_t kfsm_output_capacity(const kfsm_command& c) {
  if ((c.cmd != KFSM_CMD_ROOT && c.cmd != KFSM_CMD_SUFFIX) || c.info.size() < KFSM_STRBUF_IMAGE) return 0;
  return kfsm_get_u32(bytes(c.info) + 8);
}

std::string kfsm_result_encode(int32_t err, const kfsm_command& c, int32_t status, const kfsm_result_outputs& out) {
  std::string head(4 + KFSM_BLOCK_IMAGE, '\0');
  kfsm_put_u32(bytes(head), static_cast<uint32_t>(err));
  put_block(bytes(head) + 4, c.cmd, c.flags, c.infolen, status);
  std::string info(c.infolen, '\0');
  Builder heap;
  uint8_t* ip = bytes(info);
  if (err == 0 && c.cmd == KFSM_CMD_XSTAT && info.size() == KFSM_XSTAT_IMAGE) {
    if (out.has_vstat) {
      char buf[1024];
      XDR xdrs;
      xdrmem_create(&xdrs, buf, sizeof buf, XDR_ENCODE);
      view_vstat_t vs = out.vstat;
      if (xdr_view_vstat_t(&xdrs, &vs)) {
        kfsm_put_u32(ip, static_cast<uint32_t>(heap.heap.size() + 1));
        heap.heap.append(buf, xdr_getpos(&xdrs));
      }
      xdr_destroy(&xdrs);
    }
    memcpy(ip + 4, out.oid.bytes, 16);
    memcpy(ip + 20, out.uuid.bytes, 16);
    kfsm_put_u32(ip + 36, static_cast<uint32_t>(out.flag));
    memcpy(ip + 48, out.uuid2.bytes, 16);
  } else if (err == 0 && (c.cmd == KFSM_CMD_ROOT || c.cmd == KFSM_CMD_SUFFIX) && info.size() >= KFSM_STRBUF_IMAGE) {
    uint32_t m = kfsm_output_capacity(c);
    std::string text = out.text;
    if (m == 0) text.clear();
    else if (text.size() > m - 1) text.resize(m - 1);
    if (m > 0) heap.put_text(ip, text, m);
  }
  return head + info + heap.heap;
}

void kfsm_lpc_put_request(uint8_t* buf, const kfsm_lpc_request_hdr& h) {
  kfsm_put_u64(buf + 0, h.op);
  kfsm_put_u64(buf + 8, h.req_size);
  kfsm_put_u64(buf + 16, h.res_capacity);
  kfsm_put_u32(buf + 24, h.cookie);
}

kfsm_lpc_request_hdr kfsm_lpc_get_request(const uint8_t* buf) {
  return kfsm_lpc_request_hdr{kfsm_get_u64(buf), kfsm_get_u64(buf + 8), kfsm_get_u64(buf + 16), kfsm_get_u32(buf + 24)};
}

void kfsm_lpc_put_reply(uint8_t* buf, uint32_t rpc_status, uint64_t size, uint32_t cookie) {
  kfsm_put_u32(buf + 0, rpc_status);
  kfsm_put_u64(buf + 4, size);
  kfsm_put_u32(buf + 24, cookie);
  kfsm_put_u32(buf + KFSM_LPC_MARKER_OFF, 1);
}

kfsm_lpc_reply_hdr kfsm_lpc_get_reply(const uint8_t* buf) {
  return kfsm_lpc_reply_hdr{kfsm_get_u32(buf), kfsm_get_u64(buf + 4), kfsm_get_u32(buf + 24),
                            kfsm_get_u32(buf + KFSM_LPC_MARKER_OFF)};
}
