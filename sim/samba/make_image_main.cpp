// quendral-sam-image: writes a test firmware image for the simulated SAM3X
// board, with or without a Controller identity, as raw binary or Intel HEX
// (placed at the flash base, as the update server delivers it).

#include "controller_image.h"
#include "intel_hex.h"
#include "sam3x_memory.h"

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace quendral::sim;

int main(int argc, char** argv)
{
    std::string out, cid, version;
    size_t size = 4096;
    uint32_t seed = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        std::string v = argv[i + 1];
        if (a == "--out") {
            out = v;
        } else if (a == "--cid") {
            cid = v;
        } else if (a == "--version") {
            version = v;
        } else if (a == "--size") {
            size = std::strtoul(v.c_str(), nullptr, 0);
        } else if (a == "--seed") {
            seed = static_cast<uint32_t>(std::strtoul(v.c_str(), nullptr, 0));
        } else {
            out.clear();
            break;
        }
    }
    bool hex = out.size() > 4 && out.compare(out.size() - 4, 4, ".hex") == 0;
    if (out.empty() || (cid.empty() != version.empty()) || (!cid.empty() && cid.size() != 32) ||
        version.find(';') != std::string::npos) {
        std::fprintf(stderr, "usage: quendral-sam-image --out FILE.bin|FILE.hex [--cid <32 chars> --version V] "
                             "[--size BYTES] [--seed N]\n");
        return 2;
    }
    std::optional<ControllerIdentity> identity;
    if (!cid.empty()) {
        identity = ControllerIdentity{cid, version};
    }
    auto image = makeControllerImage(identity, size, seed);
    std::vector<uint8_t> bytes = image;
    if (hex) {
        std::string text = toIntelHex(image, Sam3xMemory::kFlashBase);
        bytes.assign(text.begin(), text.end());
    }
    if (!writeFile(out, bytes)) {
        std::perror(out.c_str());
        return 1;
    }
    return 0;
}
