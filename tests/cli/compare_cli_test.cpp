// --compare as a user meets it: statuses, the table, the JSON lines, the picture.
#include <gtest/gtest.h>

#include <sstream>

#include "tests/model/json_check.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

const std::string kCompareUsage =
    "usage: tevrin-fuse --compare [--json] [--svg out.svg] reference src... (2 to 8 sources)\n";

CommandResult fuse_cli(const std::string& args) {
    return run_command(shell_quote(fuse_exe()) + " " + args);
}

// An '&' that starts no entity reference.
bool stray_ampersand(const std::string& text) {
    for (size_t at = text.find('&'); at != std::string::npos; at = text.find('&', at + 1)) {
        const std::string rest = text.substr(at + 1, 6);
        const bool entity = rest.rfind("amp;", 0) == 0 || rest.rfind("lt;", 0) == 0 ||
                            rest.rfind("gt;", 0) == 0 || rest.rfind("quot;", 0) == 0 ||
                            rest.rfind("apos;", 0) == 0;
        if (!entity) {
            return true;
        }
    }
    return false;
}

// Well-formed enough for any XML reader: one root, every tag closed in order,
// quoted attributes, and no raw '<' or stray '&' in text or attribute values.
bool well_formed_xml(const std::string& doc) {
    std::vector<std::string> open;
    size_t i = doc.rfind("<?xml", 0) == 0 ? doc.find("?>") + 2 : 0;
    bool had_root = false;
    while (i < doc.size()) {
        const size_t lt = doc.find('<', i);
        const std::string text = doc.substr(i, (lt == std::string::npos ? doc.size() : lt) - i);
        if (stray_ampersand(text) ||
            (open.empty() && text.find_first_not_of(" \n") != std::string::npos)) {
            return false;
        }
        if (lt == std::string::npos) {
            break;
        }
        const size_t gt = doc.find('>', lt);
        if (gt == std::string::npos) {
            return false;
        }
        std::string tag = doc.substr(lt + 1, gt - lt - 1);
        if (std::count(tag.begin(), tag.end(), '"') % 2 != 0 || tag.find('<') != tag.npos ||
            stray_ampersand(tag)) {
            return false;
        }
        if (tag[0] == '/') {
            if (open.empty() || open.back() != tag.substr(1)) {
                return false;
            }
            open.pop_back();
        } else {
            const bool empty = tag.back() == '/';
            if (open.empty() && had_root) {
                return false;
            }
            had_root = true;
            if (!empty) {
                open.push_back(tag.substr(0, tag.find_first_of(" \n/")));
            }
        }
        i = gt + 1;
    }
    return had_root && open.empty();
}

// Well-formed UTF-8, as XML readers demand (no overlong or surrogate forms).
bool valid_utf8(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        const auto byte = [&](size_t k) {
            return at + k < text.size() ? static_cast<unsigned char>(text[at + k]) : 0u;
        };
        const unsigned lead = byte(0);
        const size_t n = lead < 0x80   ? 1
                         : lead < 0xc2 ? 0
                         : lead < 0xe0 ? 2
                         : lead < 0xf0 ? 3
                         : lead < 0xf5 ? 4
                                       : 0;
        const unsigned low = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
        const unsigned high = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
        if (n == 0 || (n > 1 && (byte(1) < low || byte(1) > high))) {
            return false;
        }
        for (size_t k = 2; k < n; ++k) {
            if ((byte(k) & 0xc0) != 0x80) {
                return false;
            }
        }
        at += n;
    }
    return true;
}

size_t count_of(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++n;
    }
    return n;
}

struct CompareCliTest : ::testing::Test {
    TempDir dir;
    std::string a = dir.file("a&<b>.gguf"), a2 = dir.file("a2.gguf"), b = dir.file("b.gguf"),
                c = dir.file("c.gguf");
    void SetUp() override {
        write_fixture(llama_fixture(3, 64, GGML_TYPE_F16, 1), a);
        write_fixture(llama_fixture(3, 64, GGML_TYPE_F16, 1), a2);
        write_fixture(llama_fixture(3, 64, GGML_TYPE_F16, 2), b);
        write_fixture(llama_fixture(2, 64, GGML_TYPE_Q8_0, 1), c);
    }
    std::string q(const std::string& path) const { return shell_quote(path); }
};

TEST_F(CompareCliTest, StatusesAndMessages) {
    const std::string nine = [&] {
        std::string s;
        for (int i = 0; i < 9; ++i) {
            s += " " + b;
        }
        return s;
    }();
    const struct {
        std::string args;
        int status;
        std::string out, err;
    } cases[] = {
        {"--compare " + b, 1, "", kCompareUsage},
        {"--compare" + nine, 1, "", kCompareUsage},
        {"--compare -o x.gguf " + b + " " + b, 1, "", kCompareUsage},
        {"--compare --dry " + b + " " + b, 1, "", kCompareUsage},
        {"--compare -t x " + b + " " + b, 1, "", "invalid thread count 'x'\n" + kCompareUsage},
        {"--compare " + b + " " + dir.file("none"), 2,
         "FAILED: not a valid GGUF: " + dir.file("none") + "\n", ""},
        {"--compare --svg " + b + " " + c + " " + b, 2,
         "FAILED: output would overwrite source " + b + "\n", ""},
        {"--compare --svg " + dir.file("no/x.svg") + " " + b + " " + c, 2,
         "FAILED: cannot write " + dir.file("no/x.svg") + "\n", "\n"},
        // Without --compare, --json and --svg change nothing a fusion does, and a
        // "--compare" that is the value of another option stays that value.
        {"--dry -e --compare " + b, 0, "--compare", ""},
        {"--dry -e x --json --svg y " + b, 0, "x", ""},
    };
    for (const auto& k : cases) {
        const CommandResult r = fuse_cli(k.args);
        EXPECT_EQ(r.status, k.status) << k.args;
        EXPECT_EQ(r.out, k.out) << k.args;
        if (k.status != 2 || k.err.empty()) {
            EXPECT_EQ(r.err, k.err) << k.args;
        } else {
            EXPECT_EQ(r.err.back(), '\n') << k.args;  // the progress line is ended
        }
    }
    EXPECT_FALSE(file_exists("x.gguf"));
}

TEST_F(CompareCliTest, TableHasALinePerLayerAndSourceAndListsWhatWasNotCompared) {
    const CommandResult r = fuse_cli("--compare " + q(a) + " " + a2 + " " + c);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out.rfind("reference  " + a + "\nsource 1   " + a2 + "\nsource 2   " + c + "\n", 0),
              0u)
        << r.out;
    // Identical donor: every figure 1 and 0; the Q8_0 copy has one layer fewer.
    const std::string same =
        "    1   1.000000  0.000000  1.000000  0.000000  1.000000  0.000000  "
        "1.000000  0.000000\n";
    for (const std::string layer : {"    0", "    1", "    2", "  all"}) {
        EXPECT_NE(r.out.find(layer + same), std::string::npos) << layer << "\n" << r.out;
    }
    EXPECT_NE(r.out.find(" rest    1          -                   -            1.000000  "
                         "0.000000  1.000000  0.000000\n"),
              std::string::npos);
    EXPECT_NE(r.out.find("    1    2   0.99"), std::string::npos);
    EXPECT_NE(r.out.find("\n    2    2          -                   -                   -"
                         "                   -\n"),
              std::string::npos);
    EXPECT_NE(r.out.find("\ntensors not compared with every source:\n"
                         "  blk.2.attn_norm.weight: source 2 missing\n"),
              std::string::npos)
        << r.out;
}

TEST_F(CompareCliTest, JsonIsOneValidObjectPerTensor) {
    const CommandResult r = fuse_cli("--compare --json " + q(a) + " " + c + " " + b);
    ASSERT_EQ(r.status, 0) << r.out;
    std::istringstream lines(r.out);
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        EXPECT_TRUE(is_valid_json(line)) << line;
    }
    EXPECT_EQ(count, 12);
    EXPECT_NE(r.out.find("{\"tensor\":\"blk.2.attn_q.weight\",\"layer\":2,\"role\":\"attention\","
                         "\"params\":4096,\"held_by\":[0,2],\"donors\":[{\"source\":1,\"status\":"
                         "\"missing\"},{\"source\":2,\"status\":\"compared\",\"cosine\":"),
              std::string::npos)
        << r.out;
}

TEST_F(CompareCliTest, PictureIsWellFormedWithACellPerLayerRoleAndDonor) {
    // File names may hold any bytes; a long one is cut, never inside a character.
    const std::string odd =
        dir.file("\xff" + std::string(19, ' ') + "\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9.gguf");
    write_fixture(llama_fixture(3, 64, GGML_TYPE_F16, 2), odd);
    const std::string svg = dir.file("x.svg");
    const CommandResult r =
        fuse_cli("--compare --svg " + svg + " " + q(a) + " " + q(odd) + " " + c + " --json");
    ASSERT_EQ(r.status, 0) << r.out;
    const std::string doc = read_file(svg);
    EXPECT_TRUE(well_formed_xml(doc)) << doc;
    EXPECT_TRUE(valid_utf8(doc));
    EXPECT_NE(doc.find("?" + std::string(19, ' ') + "\xc3\xa9\xc3\xa9\xc3\xa9...<"),
              std::string::npos);
    EXPECT_EQ(count_of(doc, "<rect class=\"cell\""), (3u + 1u) * 4u * 2u);  // 3 layers + rest
    EXPECT_NE(doc.find("a&amp;&lt;b&gt;.gguf"), std::string::npos);
    EXPECT_NE(doc.find("log scale"), std::string::npos);
    for (const std::string bad : {"<a>x</b>", "<a>&x</a>", "<a b=\"1></a>", "<a/><b/>", "<a>"}) {
        EXPECT_FALSE(well_formed_xml(bad)) << bad;  // the checker itself
    }
}

}  // namespace
}  // namespace tevrin::testing
