// The tablet's kernel modules, as /proc/modules lists them. The file is read anew every time, so that an edit counts
// at once; while it cannot be read, every module counts as loaded.
#pragma once

#include "os.h"

namespace sim {

// The modules that /system/lib/modules holds, in order of loading.
[[nodiscard]] std::vector<std::string> module_files();
// "/system/lib/modules/ehci-hcd.ko" is the module ehci_hcd.
[[nodiscard]] std::string module_name(const fs::path& file);
// The text of /proc/modules after these were loaded, in this order.
[[nodiscard]] std::string module_list(std::span<const std::string> names);

class Modules {
public:
    // `proc`: the tablet's /proc.
    explicit Modules(const fs::path& proc);

    [[nodiscard]] bool loaded(std::span<const std::string_view> names) const;
    [[nodiscard]] bool loaded(std::string_view name) const { return loaded(std::span(&name, 1)); }
    // Both return why it cannot be done; nothing when it is done.
    [[nodiscard]] std::string insert(const std::string& name) const;
    [[nodiscard]] std::string remove(const std::string& name) const;

    // Readable when somebody may have changed the list, until `seen` is called.
    [[nodiscard]] int fd() const { return changes_.get(); }
    void seen() const;

private:
    void save(const std::string& text) const;

    fs::path file_;
    Fd changes_;
};

} // namespace sim
