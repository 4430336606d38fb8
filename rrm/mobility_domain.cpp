#include "rrm/mobility_domain.h"

namespace {

const unsigned polynomial = 0x8005;

}  // namespace

uint16_t mobility_domain_crc(const std::string& text)
{
    unsigned reg = 0;
    for (const char character : text) {
        const unsigned byte = static_cast<unsigned char>(character);
        for (int bit = 7; bit >= 0; --bit) {
            const bool carry = (reg & 0x8000u) != 0;
            reg = ((reg << 1) | ((byte >> bit) & 1u)) & 0xFFFFu;
            if (carry)
                reg ^= polynomial;
        }
    }
    return static_cast<uint16_t>(reg);
}
