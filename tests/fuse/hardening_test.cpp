// Runs whose data would make ggml abort inside its quantizers.
#include <gtest/gtest.h>

#include <cmath>

#include "fuse/fuse.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

// The grid search of the iq3/iq2_s/iq1_m quantizers aborts on NaN and on values
// from about 1e12 on. With "out keep" a blend of an iq3_xxs base re-encodes to
// iq3_xxs, so a donor with such values must fail the run instead.
TEST(FuseHardening, GridQuantizersNeverSeeValuesOutOfRange) {
    TempDir dir;
    FixtureModel base = fixture_model();
    add_tensor(base, "w", GGML_TYPE_IQ3_XXS, {256, 2, 1, 1});
    write_fixture(base, dir.file("base.gguf"));
    const std::string out = dir.file("out.gguf");
    for (const float value : {0.5f, 1e13f, -1e13f, NAN}) {
        FixtureModel donor = fixture_model();
        add_tensor(donor, "w", GGML_TYPE_F32, {256, 2, 1, 1}).values.assign(512, value);
        write_fixture(donor, dir.file("donor.gguf"));
        const FuseResult r =
            fuse({dir.file("base.gguf"), dir.file("donor.gguf")}, "out keep", out, 2, nullptr, {});
        if (value == 0.5f) {
            EXPECT_TRUE(r.ok) << r.message;
        } else {
            EXPECT_EQ(r.message, "cannot quantize to type iq3_xxs: value out of range") << value;
            EXPECT_FALSE(file_exists(out));
        }
        std::remove(out.c_str());
    }
}

}  // namespace
}  // namespace tevrin::testing
