#pragma once

#include <string>

// A private directory for one test, removed with everything in it when the
// object goes.
class temp_dir {
  public:
    // Creates it with mkdtemp under $TMPDIR, or /tmp when that is unset;
    // throws std::runtime_error on failure.
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;

    const std::string &path() const { return path_; }
    // path() + "/" + rel; nothing is created.
    std::string file(const std::string &rel) const;
    // mkdir -p of rel; throws on failure.
    void make_dirs(const std::string &rel) const;
    // Writes content to rel, replacing it and creating its parent
    // directories; throws on failure.
    void write_file(const std::string &rel, const std::string &content) const;
    // The content of rel, "" when it is missing.
    std::string read_file(const std::string &rel) const;
    bool exists(const std::string &rel) const;

  private:
    std::string path_;
};
