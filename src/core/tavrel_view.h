// Tavrel_View: the one object that stands for the view in the process. It knows the view storage
// directory and the layout of the files in it.
//
// This is the part the process spine uses (paths, the re-read of the metadata after the first
// request, and cleanup); creation, validation, locking and the update gate live here as well.
#pragma once

#include <string>

class Tavrel_View {
 public:
  static constexpr const char* METADATA_FILE = ".tavrel";
  static constexpr const char* LOCK_FILE = ".pid";
  static constexpr const char* VIEW_IPC_DIR = ".ripc";

  explicit Tavrel_View(const std::string& storage_path);
  virtual ~Tavrel_View();

  // A view object for an existing storage, built without touching the disk.
  static Tavrel_View* get_view_from_stg(const std::string& storage_path);

  const std::string& get_storage_path() const { return m_storage_path; }
  std::string get_metadata_path() const { return m_storage_path + "/" + METADATA_FILE; }

  // Reads the metadata file again; 0 or a status.
  virtual int get_view_info();
  // Tells the kernel module to forget the view; 0 or a status.
  virtual int cleanup();

 protected:
  std::string m_storage_path;
};
