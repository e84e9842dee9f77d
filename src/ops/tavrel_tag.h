// Tavrel_Tag: element, attribute and value names of the XML command channel.
#pragma once

struct Tavrel_Tag {
  // Envelope.
  static constexpr const char* STATUS_CODE = "status-code";
  static constexpr const char* STATUS_MESSAGE = "status-message";
  static constexpr const char* TRANS_ID = "tx-id";
  static constexpr const char* VERSION = "version";
  static constexpr const char* PATH = "path";
  static constexpr const char* TRUE_STRING = "true";
  static constexpr const char* FALSE_STRING = "false";
  static constexpr const char* ONLINE = "online";
  static constexpr const char* SHUTDOWN_IN_PROGRESS = "ShutdownInProgress";
  static constexpr const char* UNKNOWN = "Unknown";
  static constexpr const char* XMLERROR = "XMLError";

  // Lists and the namespace-modified block of the element operations.
  static constexpr const char* NAMESPACE_MODIFIED = "namespace-modified";
  static constexpr const char* NEW_LEAVES = "new-leaves";
  static constexpr const char* REMOVED_LEAVES = "removed-leaves";
  static constexpr const char* REMOVED_LOAD_RULES = "removed-load-rules";
  static constexpr const char* LEAF = "leaf";

  // Metadata in responses.
  static constexpr const char* OBJECT_OID = "object-oid";
  static constexpr const char* ELEMENT_OID = "element-oid";
  static constexpr const char* VERSION_NAME = "version-name";
  static constexpr const char* CANONICAL_PATH = "canonical-path";
  static constexpr const char* IS_DIRECTORY = "is-directory";
  static constexpr const char* IS_SYMLINK = "is-symlink";
  static constexpr const char* SYMLINK_TARGET = "symlink-target";
  static constexpr const char* IS_CHECKED_OUT = "is-checked-out";
  static constexpr const char* IS_HIJACKED = "is-hijacked";
  static constexpr const char* IS_ECLIPSED = "is-eclipsed";
  static constexpr const char* IS_VERSION_CONTROLLED = "is-version-controlled";
  static constexpr const char* IS_SILO_ROOT = "is-silo-root";
  static constexpr const char* IS_TKM = "is-tkm";
  static constexpr const char* SIZE = "size";
  static constexpr const char* MTYPE = "mtype";
  static constexpr const char* RESOURCE_TYPE = "type";
  static constexpr const char* ACCESS_TIME = "access-time";
  static constexpr const char* CREATION_TIME = "creation-time";
  static constexpr const char* LAST_MODIFIED_TIME = "last-modified-time";
  static constexpr const char* CLTXT_CACHE = "shared-cltxt-path";
  static constexpr const char* SILO_TAG = "silo-tag";
};
