// --compare as a user meets it: statuses, the table, the JSON lines, the picture.
#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "tests/cli/cli_run.h"
#include "tests/model/json_check.h"

namespace tevrin::testing {
namespace {

const std::string kCompareUsage =
    "usage: tevrin-fuse --compare [--json] [--svg out.svg] reference src... (2 to 8 sources)\n";

// Well-formed enough for any XML reader: one root, every tag closed in order,
// quoted attributes, no raw '<' in text, and every '&' starting an entity.
bool well_formed_xml(const std::string& doc) {
    for (size_t at = doc.find('&'); at != std::string::npos; at = doc.find('&', at + 1)) {
        const std::string rest = doc.substr(at + 1, 5);
        if (!rest.starts_with("amp;") && !rest.starts_with("lt;") && !rest.starts_with("gt;") &&
            !rest.starts_with("quot;")) {
            return false;
        }
    }
    std::vector<std::string> open;
    int roots = 0;
    const size_t prolog = doc.starts_with("<?xml") ? doc.find("?>") : 0;
    for (size_t lt = doc.find('<', prolog); lt != std::string::npos; lt = doc.find('<', lt + 1)) {
        const size_t gt = doc.find('>', lt);
        const std::string tag = doc.substr(lt + 1, gt - lt - 1);
        if (gt == std::string::npos || tag.empty() || has(tag, "<") ||
            std::ranges::count(tag, '"') % 2 != 0) {
            return false;
        }
        if (tag[0] == '/') {
            if (open.empty() || open.back() != tag.substr(1)) {
                return false;
            }
            open.pop_back();
            continue;
        }
        roots += open.empty();
        if (tag.back() != '/') {
            open.push_back(tag.substr(0, tag.find_first_of(" \n")));
        }
    }
    return roots == 1 && open.empty();
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
    std::string nine;
    for (int i = 0; i < 9; ++i) {
        nine += " " + b;
    }
    // Arguments, status, standard output and standard error.
    const std::tuple<std::string, int, std::string, std::string> cases[] = {
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
    for (const auto& [args, status, out, err] : cases) {
        const CommandResult r = fuse_cli(args);
        EXPECT_EQ(r.status, status) << args;
        EXPECT_EQ(r.out, out) << args;
        // A failed comparison ends its progress line ("\n"); the rest print no progress.
        const bool ended = status == 2 && !err.empty() && r.err.ends_with("\n");
        EXPECT_EQ(ended ? "\n" : r.err, err) << args;
    }
    EXPECT_FALSE(file_exists("x.gguf"));
}

TEST_F(CompareCliTest, TableHasALinePerLayerAndSourceAndListsWhatWasNotCompared) {
    const CommandResult r = fuse_cli("--compare " + q(a) + " " + a2 + " " + c);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(
        r.out.starts_with("reference  " + a + "\nsource 1   " + a2 + "\nsource 2   " + c + "\n"))
        << r.out;
    // Identical donor: every figure 1 and 0; the Q8_0 copy has one layer fewer.
    const std::string same =
        "    1   1.000000  0.000000  1.000000  0.000000  1.000000  0.000000  "
        "1.000000  0.000000\n";
    for (const std::string layer : {"    0", "    1", "    2", "  all"}) {
        EXPECT_PRED2(has, r.out, layer + same);
    }
    EXPECT_PRED2(has, r.out,
                 " rest    1          -                   -            1.000000  0.000000  "
                 "1.000000  0.000000\n");
    EXPECT_PRED2(has, r.out, "    1    2   0.99");
    EXPECT_PRED2(has, r.out,
                 "\n    2    2          -                   -                   -"
                 "                   -\n");
    EXPECT_PRED2(has, r.out,
                 "\ntensors not compared with every source:\n"
                 "  blk.2.attn_norm.weight: source 2 missing\n");
}

TEST_F(CompareCliTest, JsonIsOneValidObjectPerTensor) {
    const CommandResult r = fuse_cli("--compare --json " + q(a) + " " + c + " " + b);
    ASSERT_EQ(r.status, 0) << r.out;
    const std::vector<std::string> lines = lines_of(r.out);
    EXPECT_EQ(lines.size(), 12u);
    for (const std::string& line : lines) {
        EXPECT_TRUE(is_valid_json(line)) << line;
    }
    EXPECT_PRED2(has, r.out,
                 "{\"tensor\":\"blk.2.attn_q.weight\",\"layer\":2,\"role\":\"attention\","
                 "\"params\":4096,\"held_by\":[0,2],\"donors\":[{\"source\":1,\"status\":"
                 "\"missing\"},{\"source\":2,\"status\":\"compared\",\"cosine\":");
}

TEST_F(CompareCliTest, PictureIsWellFormedWithACellPerLayerRoleAndDonor) {
    // File names may hold any bytes (shown as '?' where not UTF-8); a long one is cut,
    // never inside a character.
    const std::string odd =
        dir.file("\xff" + std::string(19, ' ') + "\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9.gguf");
    write_fixture(llama_fixture(3, 64, GGML_TYPE_F16, 2), odd);
    const std::string svg = dir.file("x.svg");
    const CommandResult r =
        fuse_cli("--compare --svg " + svg + " " + q(a) + " " + q(odd) + " " + c + " --json");
    ASSERT_EQ(r.status, 0) << r.out;
    const std::string doc = read_file(svg);
    EXPECT_TRUE(well_formed_xml(doc)) << doc;
    EXPECT_PRED2(has, doc, ": ?" + std::string(19, ' ') + "\xc3\xa9\xc3\xa9\xc3\xa9...<");
    EXPECT_EQ(count_of(doc, "<rect class=\"cell\""), (3u + 1u) * 4u * 2u);  // 3 layers + rest
    EXPECT_PRED2(has, doc, "a&amp;&lt;b&gt;.gguf");
    EXPECT_PRED2(has, doc, "log scale");
    for (const std::string bad :
         {"<a>x</b>", "<a>&x</a>", "<a b=\"1></a>", "<a/><b/>", "<a>x<y</a>"}) {
        EXPECT_FALSE(well_formed_xml(bad)) << bad;  // the checker itself
    }
}

}  // namespace
}  // namespace tevrin::testing
