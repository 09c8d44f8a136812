#include "drivers.h"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace sim {

namespace {

enum class Kind { directory, power, link, device, other };

// Inode numbers count from 1, in this order.
struct DriverRow {
    fuse_ino_t parent;
    std::string_view name;
    const char* path; // in the tablet
    Kind kind;
    mode_t mode;
};

constexpr fuse_ino_t root = FUSE_ROOT_ID, wan = 2, controller = 3;
constexpr DriverRow driver_rows[] = {
    {0, "", "", Kind::directory, S_IFDIR | 0755},
    {root, "wan", "", Kind::directory, S_IFDIR | 0755},
    {root, "msm-dwc3", "", Kind::directory, S_IFDIR | 0755},
    {root, "bwan", "/dev/bwan", Kind::device, S_IFREG | 0660},
    {wan, "power", "/sys/wan/power", Kind::power, S_IFREG | 0644},
    {wan, "usben", "/sys/wan/usben", Kind::link, S_IFREG | 0644},
    {controller, "bind", "/sys/bus/platform/drivers/msm-dwc3/bind", Kind::other, S_IFREG | 0200},
    {controller, "unbind", "/sys/bus/platform/drivers/msm-dwc3/unbind", Kind::other, S_IFREG | 0200},
};
static_assert(driver_rows[wan - 1].name == "wan" && driver_rows[controller - 1].name == "msm-dwc3");

constexpr size_t page = 4096;             // what such a file takes in one write
constexpr unsigned wake_request = 0xAA01; // the only one that bwan knows

std::string obstacle(std::string_view said)
{
    if (access("/dev/fuse", F_OK) != 0)
        return "there is no /dev/fuse: modprobe fuse, or start the container with --device /dev/fuse";
    if (access("/dev/fuse", R_OK | W_OK) != 0)
        return "/dev/fuse is not open to this user: run as root, or chmod a+rw /dev/fuse";
    constexpr const char* helper = "/usr/bin/fusermount3";
    if (access(helper, X_OK) != 0)
        return "fusermount3 is missing: install the package fuse3";
    return "mounting with FUSE is not permitted (" + std::string(trimmed(split(trimmed(said), '\n').front())) +
           "): run as root, or outside of this container";
}

// Whether nobody serves this mount any more.
bool is_dead(const fs::path& mount)
{
    struct stat about {};
    return stat(mount.c_str(), &about) != 0 && (errno == ENOTCONN || errno == ECONNABORTED);
}

} // namespace

// What the kernel asks for. A handler returns an errno value, or 0 when it has replied.
struct Drivers::Calls {
    template <typename Handler>
    static void handle(fuse_req_t request, Handler handler)
    {
        Drivers& drivers = *static_cast<Drivers*>(fuse_req_userdata(request));
        int error = EIO;
        try {
            error = handler(drivers);
        } catch (...) {
            drivers.failure_ = std::current_exception(); // none may pass through libfuse
        }
        if (error != 0)
            (void)fuse_reply_err(request, error);
    }

    static struct stat attributes(const Drivers& drivers, fuse_ino_t number)
    {
        const File& file = drivers.files_[number - 1];
        struct stat about {};
        about.st_ino = number;
        about.st_mode = file.mode;
        about.st_uid = file.owner;
        about.st_gid = file.group;
        about.st_nlink = 1;
        about.st_size = S_ISDIR(file.mode) ? 0 : page;
        return about;
    }

    static void lookup(fuse_req_t request, fuse_ino_t parent, const char* name)
    {
        handle(request, [&](const Drivers& drivers) {
            for (size_t i = 0; i < std::size(driver_rows); ++i) {
                if (driver_rows[i].parent != parent || driver_rows[i].name != name || !drivers.present(i))
                    continue;
                fuse_entry_param entry{}; // times out at once: the next look asks again
                entry.ino = i + 1;
                entry.attr = attributes(drivers, entry.ino);
                (void)fuse_reply_entry(request, &entry);
                return 0;
            }
            return ENOENT;
        });
    }

    static void getattr(fuse_req_t request, fuse_ino_t number, fuse_file_info* /*open*/)
    {
        handle(request, [&](const Drivers& drivers) {
            const struct stat about = attributes(drivers, number);
            (void)fuse_reply_attr(request, &about, 0);
            return 0;
        });
    }

    static void setattr(fuse_req_t request, fuse_ino_t number, struct stat* wanted, int which, fuse_file_info* /*open*/)
    {
        handle(request, [&](Drivers& drivers) {
            File& file = drivers.files_[number - 1];
            constexpr mode_t permissions = 07777;
            if ((which & FUSE_SET_ATTR_MODE) != 0)
                file.mode = (file.mode & ~permissions) | (wanted->st_mode & permissions);
            if ((which & FUSE_SET_ATTR_UID) != 0)
                file.owner = wanted->st_uid;
            if ((which & FUSE_SET_ATTR_GID) != 0)
                file.group = wanted->st_gid;
            const struct stat about = attributes(drivers, number); // a new length changes nothing
            (void)fuse_reply_attr(request, &about, 0);
            return 0;
        });
    }

    static void create(fuse_req_t request, fuse_ino_t /*parent*/, const char* /*name*/, mode_t /*mode*/,
                       fuse_file_info* /*open*/)
    {
        (void)fuse_reply_err(request, EACCES);
    }

    static void open(fuse_req_t request, fuse_ino_t number, fuse_file_info* open)
    {
        handle(request, [&](const Drivers& drivers) {
            if (!drivers.present(number - 1))
                return ENOENT;
            if (driver_rows[number - 1].kind == Kind::device && drivers.bwan_ == Bwan::refused)
                return EACCES;
            open->direct_io = 1; // every read and write comes here
            (void)fuse_reply_open(request, open);
            return 0;
        });
    }

    static void read(fuse_req_t request, fuse_ino_t number, size_t size, off_t offset, fuse_file_info* /*open*/)
    {
        handle(request, [&](const Drivers& drivers) {
            const std::string text = drivers.files_[number - 1].word + "\n";
            const size_t from = std::min(static_cast<size_t>(offset), text.size());
            (void)fuse_reply_buf(request, text.data() + from, std::min(size, text.size() - from));
            return 0;
        });
    }

    static void write(fuse_req_t request, fuse_ino_t number, const char* bytes, size_t size, off_t /*offset*/,
                      fuse_file_info* /*open*/)
    {
        handle(request, [&](Drivers& drivers) {
            const std::string_view text(bytes, std::min(size, page));
            const int error = drivers.write(number - 1, text);
            if (error == 0)
                (void)fuse_reply_write(request, text.size());
            return error;
        });
    }

    static void ioctl(fuse_req_t request, fuse_ino_t number, unsigned command, void* argument, fuse_file_info* /*open*/,
                      unsigned /*flags*/, const void* /*in*/, size_t /*in_size*/, size_t /*out_size*/)
    {
        handle(request, [&](const Drivers& drivers) {
            // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): a number, whatever its type
            const int error = drivers.control(number - 1, command, reinterpret_cast<uintptr_t>(argument));
            if (error == 0)
                (void)fuse_reply_ioctl(request, 0, nullptr, 0);
            return error;
        });
    }

    static void readdir(fuse_req_t request, fuse_ino_t number, size_t size, off_t offset, fuse_file_info* /*open*/)
    {
        handle(request, [&](const Drivers& drivers) {
            constexpr size_t largest = 65536;
            std::vector<char> listing(std::min(size, largest));
            size_t used = 0;
            for (size_t i = static_cast<size_t>(offset); i < std::size(driver_rows); ++i) {
                if (driver_rows[i].parent != number || !drivers.present(i))
                    continue;
                const struct stat about = attributes(drivers, i + 1);
                const size_t needed = fuse_add_direntry(request, listing.data() + used, listing.size() - used,
                                                        driver_rows[i].name.data(), &about, static_cast<off_t>(i) + 1);
                if (needed > listing.size() - used)
                    break;
                used += needed;
            }
            (void)fuse_reply_buf(request, listing.data(), used);
            return 0;
        });
    }
};

Drivers::Drivers(const fs::path& mount, Bwan bwan, const Modules& modules, Modem& modem, const Journal& journal)
    : bwan_(bwan), modules_(modules), modem_(modem), journal_(journal)
{
    for (const DriverRow& row : driver_rows)
        files_.push_back({row.mode, getuid(), getgid(), modem.is_powered() ? "1" : "0"});

    fuse_lowlevel_ops calls{};
    calls.lookup = Calls::lookup;
    calls.getattr = Calls::getattr;
    calls.setattr = Calls::setattr;
    calls.create = Calls::create;
    calls.open = Calls::open;
    calls.read = Calls::read;
    calls.write = Calls::write;
    calls.ioctl = Calls::ioctl;
    calls.readdir = Calls::readdir;

    // Only root may let other users in.
    std::vector<std::string> words = {"virtual_tablet", "-o", "fsname=virtual_tablet"};
    if (geteuid() == 0)
        words.back() += ",allow_other";
    std::vector<char*> arguments = argument_vector(words);
    fuse_args options{static_cast<int>(words.size()), arguments.data(), 0};

    ErrorCapture errors;
    session_ = fuse_session_new(&options, &calls, sizeof calls, this);
    fuse_opt_free_args(&options);
    mounted_ = session_ != nullptr && fuse_session_mount(session_, mount.c_str()) == 0;
    if (!mounted_) {
        if (session_ != nullptr)
            fuse_session_destroy(session_);
        throw std::runtime_error(obstacle(errors.said()));
    }
    must(fcntl(fd(), F_SETFL, O_NONBLOCK), "fuse");
}

Drivers::~Drivers()
{
    unmount();
    fuse_session_destroy(session_);
}

void Drivers::unmount()
{
    if (std::exchange(mounted_, false))
        fuse_session_unmount(session_);
}

int Drivers::fd() const
{
    return mounted_ ? fuse_session_fd(session_) : -1;
}

void Drivers::serve()
{
    fuse_buf call{};
    const int size = fuse_session_receive_buf(session_, &call);
    const std::unique_ptr<void, decltype(&std::free)> memory(call.mem, &std::free);
    if (size > 0)
        fuse_session_process_buf(session_, &call);
    else if (size != -EAGAIN && size != -EINTR)
        unmount();
    if (failure_)
        std::rethrow_exception(std::exchange(failure_, nullptr));
}

void Drivers::take_away_dead(const fs::path& mount)
{
    if (is_dead(mount) && umount2(mount.c_str(), MNT_DETACH) != 0)
        (void)run_quietly({"fusermount3", "-u", "-z", mount});
}

void Drivers::release(const fs::path& mount)
{
    // The guard of the process that was killed is about to unmount it; nobody else must meet it at that.
    constexpr int tries = 100, milliseconds = 10;
    for (int i = 0; is_dead(mount) && i < tries; ++i)
        (void)poll(nullptr, 0, milliseconds);
    take_away_dead(mount);
}

bool Drivers::present(size_t file) const
{
    switch (driver_rows[file].kind) {
    case Kind::device:
        return bwan_ != Bwan::missing && modules_.loaded("bwan");
    case Kind::power:
    case Kind::link:
        return modules_.loaded("bwan");
    case Kind::directory:
    case Kind::other:
        return true;
    }
    return false;
}

int Drivers::write(size_t file, std::string_view text)
{
    const DriverRow& row = driver_rows[file];
    if (text.ends_with('\n'))
        text.remove_suffix(1);
    journal_.note(std::string("write ") + row.path + " " + printable(text));

    if (row.kind == Kind::power || row.kind == Kind::link) {
        if (text != "0" && text != "1" && text != "2") {
            journal_.complain(std::string(row.path) + " takes 0, 1 or 2");
            return EINVAL;
        }
        if (row.kind == Kind::power)
            modem_.switch_power(text.front());
        else
            modem_.switch_link(text.front());
    }
    files_[file].word = text;
    return 0;
}

int Drivers::control(size_t file, unsigned command, uintptr_t argument) const
{
    // Language runtimes ask every file whether it is a terminal; only what is meant for the driver counts.
    constexpr unsigned type_shift = 8, own_type = wake_request >> type_shift;
    if (driver_rows[file].kind != Kind::device || command >> type_shift != own_type)
        return ENOTTY;
    std::array<char, 64> line{};
    (void)snprintf(line.data(), line.size(), " %X %jX", command, static_cast<uintmax_t>(argument));
    journal_.note(std::string("ioctl ") + driver_rows[file].path + line.data());
    if (command != wake_request) {
        journal_.complain(std::string(driver_rows[file].path) + " does not know this request");
        return ENOTTY;
    }
    return bwan_ == Bwan::failing ? EIO : 0;
}

} // namespace sim
