// CRandom: the Mersenne Twister MT19937 of Matsumoto and Nishimura, 32 bits a draw, with the seeding and the output
// functions of their reference of 2002, which std::mt19937 has as well, and random texts. Not for secrets: 624 draws
// tell all that follow.
//
// It has no lock: an instance, the shared one too, is for one thread at a time.
#pragma once

#include "foundation/StdString.h"

#include <cstdint>
#include <random>

class CRandom {
public:
    // The alphabets of genrand_string, in the order in which their characters are numbered.
    enum StringType : int {
        alphanumeric = 0,  // 0-9, A-Z, a-z
        letters = 1,       // A-Z, a-z
        digits = 2,        // 0-9
    };

    // Never seeded: the first draw seeds with 5489.
    CRandom() = default;
    explicit CRandom(unsigned long seed) { init_genrand(seed); }

    // Starts the sequence of `seed`, of which the low 32 bits count.
    void init_genrand(unsigned long seed);

    std::uint32_t genrand_int32();  // 0 to 0xffffffff
    std::int32_t genrand_int31();   // 0 to 0x7fffffff
    double genrand_real1();         // 0 to 1, both included
    double genrand_real2();         // 0 included to 1 excluded
    double genrand_real3();         // 0 to 1, both excluded
    double genrand_res53();         // 0 included to 1 excluded, in 53 bits; takes two draws

    // `length` characters of the alphabet of `type`, one draw each. Empty when there is nothing to draw: a length of 0
    // or less, a type that is none of the above.
    CStdStr genrand_string(int length, StringType type);

    // Seeded with the time, in seconds, at which the program started.
    static CRandom s_random;

private:
    std::mt19937 engine_;
};
