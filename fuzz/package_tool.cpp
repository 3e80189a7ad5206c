/** The command reads packages and firmware images itself as well, and agrees with the library about them. */
#include "box.h"
#include "certificates.h"
#include "failure.h"
#include "fip_prase.h"
#include "package.h"
#include "vx_zip.h"

/* The library's reader of firmware asks for as much memory as an entry claims to take. */
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

/** Whether `call` ends without a Failure; nothing else may come out of it. */
template <class Call>
static bool ends_well(Call call) {
    try {
        call();
        return true;
    } catch (const Failure& failure) {
        must(failure.code == ExitCode::refused);
        return false;
    }
}

static void read_package(const std::string& path) {
    const Package package(path);
    uint64_t images = 0, all = 0, image_sum = 0;
    const int64_t total = vx_get_zip_size(path.c_str(), &images);
    for (const Entry& entry : package.entries()) {
        all += entry.size;
        image_sum += entry.is_image() ? entry.size : 0;
        uint64_t done = 0;
        must(!ends_well([&] { package.read(entry, [&](auto piece) { return done += piece.size(), true; }); }) ||
             done == entry.size);
    }
    must(total < 0 || (static_cast<uint64_t>(total) == all && images == image_sum));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = put_input(data, size);
    (void)ends_well([&] { read_package(path); });
    uint32_t version = 0;
    const bool passes = vx_fip_img_anti_read(path.c_str(), NOSEC_UBOOT_IMG, &version) == 0;
    const std::vector<Certificate> certificates = list_certificates(FirmwareKind::uboot, path);
    must(certificates.size() <= 9);
    must(!passes || version == 255 || !certificates.empty());
    return 0;
}
