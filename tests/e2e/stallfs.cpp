// A filesystem for the end-to-end tests that passes everything through to a directory, except that
// reserving the blocks of a file whose name starts with "stall" never returns: a disk that hangs
// under one file while the rest of it works.
//
//   stallfs BACKING_DIR MOUNT_POINT        (runs in the foreground until unmounted)
#define FUSE_USE_VERSION 31
#include <fuse.h>
#include <fuse_lowlevel.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string g_back;

std::string real(const char* path)
{
    return g_back + path;
}

int fail()
{
    return -errno;
}

int fs_getattr(const char* path, struct stat* st, fuse_file_info* fi)
{
    if (fi)
        return fstat(static_cast<int>(fi->fh), st) == 0 ? 0 : fail();
    return lstat(real(path).c_str(), st) == 0 ? 0 : fail();
}

int fs_access(const char* path, int mask)
{
    return access(real(path).c_str(), mask) == 0 ? 0 : fail();
}

int fs_mkdir(const char* path, mode_t mode)
{
    return mkdir(real(path).c_str(), mode) == 0 ? 0 : fail();
}

int fs_unlink(const char* path)
{
    return unlink(real(path).c_str()) == 0 ? 0 : fail();
}

int fs_rmdir(const char* path)
{
    return rmdir(real(path).c_str()) == 0 ? 0 : fail();
}

int fs_rename(const char* from, const char* to, unsigned int flags)
{
    if (flags)
        return -EINVAL;
    return rename(real(from).c_str(), real(to).c_str()) == 0 ? 0 : fail();
}

int fs_truncate(const char* path, off_t size, fuse_file_info* fi)
{
    const int rc = fi ? ftruncate(static_cast<int>(fi->fh), size) : truncate(real(path).c_str(), size);
    return rc == 0 ? 0 : fail();
}

int fs_create(const char* path, mode_t mode, fuse_file_info* fi)
{
    const int fd = open(real(path).c_str(), fi->flags, mode);
    if (fd < 0)
        return fail();
    fi->fh = static_cast<uint64_t>(fd);
    return 0;
}

int fs_open(const char* path, fuse_file_info* fi)
{
    const int fd = open(real(path).c_str(), fi->flags);
    if (fd < 0)
        return fail();
    fi->fh = static_cast<uint64_t>(fd);
    return 0;
}

int fs_read(const char*, char* buf, size_t size, off_t off, fuse_file_info* fi)
{
    const ssize_t n = pread(static_cast<int>(fi->fh), buf, size, off);
    return n < 0 ? fail() : static_cast<int>(n);
}

int fs_write(const char*, const char* buf, size_t size, off_t off, fuse_file_info* fi)
{
    const ssize_t n = pwrite(static_cast<int>(fi->fh), buf, size, off);
    return n < 0 ? fail() : static_cast<int>(n);
}

int fs_release(const char*, fuse_file_info* fi)
{
    close(static_cast<int>(fi->fh));
    return 0;
}

int fs_readdir(const char* path, void* buf, fuse_fill_dir_t fill, off_t, fuse_file_info*,
               fuse_readdir_flags)
{
    DIR* d = opendir(real(path).c_str());
    if (!d)
        return fail();
    while (const dirent* e = readdir(d))
        fill(buf, e->d_name, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    closedir(d);
    return 0;
}

int fs_fallocate(const char* path, int mode, off_t off, off_t len, fuse_file_info* fi)
{
    const char* base = strrchr(path, '/');
    if (std::strncmp(base ? base + 1 : path, "stall", 5) == 0) {
        // The hung disk: this request is not answered while the filesystem runs.
        fuse_session* se = fuse_get_session(fuse_get_context()->fuse);
        while (!fuse_session_exited(se))
            usleep(50000);
        return -EIO;
    }
    return fallocate(static_cast<int>(fi->fh), mode, off, len) == 0 ? 0 : fail();
}

int fs_statfs(const char*, struct statvfs* st)
{
    return statvfs(g_back.c_str(), st) == 0 ? 0 : fail();
}

void* fs_init(fuse_conn_info*, fuse_config* cfg)
{
    cfg->use_ino = 1;     // the agent tells its files apart by inode number
    cfg->attr_timeout = 0; // the backing directory is the truth
    cfg->entry_timeout = 0;
    cfg->negative_timeout = 0;
    return nullptr;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s BACKING_DIR MOUNT_POINT\n", argv[0]);
        return 2;
    }
    char back[PATH_MAX];
    if (!realpath(argv[1], back)) {
        perror(argv[1]);
        return 2;
    }
    g_back = back;
    fuse_operations ops{};
    ops.getattr = fs_getattr;
    ops.access = fs_access;
    ops.mkdir = fs_mkdir;
    ops.unlink = fs_unlink;
    ops.rmdir = fs_rmdir;
    ops.rename = fs_rename;
    ops.truncate = fs_truncate;
    ops.create = fs_create;
    ops.open = fs_open;
    ops.read = fs_read;
    ops.write = fs_write;
    ops.release = fs_release;
    ops.readdir = fs_readdir;
    ops.fallocate = fs_fallocate;
    ops.statfs = fs_statfs;
    ops.init = fs_init;
    char* fargs[] = {argv[0], const_cast<char*>("-f"), argv[2], nullptr};
    return fuse_main(3, fargs, &ops, nullptr);
}
