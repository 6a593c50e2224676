/* A C99 host of the taze pattern engine: loads a pattern file, or the newest
 * good file of a directory, and prints a few answers. The keys asked about
 * are those of examples/example.json.
 *
 * Usage: c_host PATTERN_FILE | PATTERN_DIR [PREFIX] */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <taze/tazapi.h>

static const char *answer(int rc)
{
    return rc == 1 ? "yes" : rc == 0 ? "no" : "error";
}

static void print_rules(TAZE *h)
{
    unsigned int count = 0, i;
    if (TAZE_GetRuleInfoCount(h, &count) != 0) return;
    printf("rules: %u\n", count);
    for (i = 0; i < count; ++i) {
        unsigned int id = 0;
        char *desc = NULL; /* must be NULL on entry; the result is a copy */
        if (TAZE_GetRuleIndexRuleID(h, i, &id) == 0 && TAZE_GetRuleIndexDesc(h, i, &desc) == 0) {
            printf("rule %u: %s\n", id, desc);
            free(desc);
        }
    }
}

static void print_map_entry(TAZE *h, const char *key)
{
    TAZE_StringIntMap e;
    uint32_t i;
    if (TAZE_PatternGetSIMapByKey(h, PT_TAZ, MT_STRING, 0, key, &e) != 0) {
        printf("map 0 %s: none\n", key);
        return;
    }
    printf("map 0 %s:", (const char *)e.string.ptr); /* borrowed from the pattern */
    for (i = 0; i < e.nr_ints; ++i) printf(" %u", e.ints[i]);
    printf("\n");
}

int main(int argc, char **argv)
{
    TAZE *h = NULL;
    struct stat st;
    char text[32];
    const char *ulm = NULL;
    unsigned int threat = 0;
    int rc;

    if (argc < 2) {
        fprintf(stderr, "usage: %s PATTERN_FILE | PATTERN_DIR [PREFIX]\n", argv[0]);
        return 2;
    }
    rc = TAZE_Init(&h);
    if (rc != 0) {
        fprintf(stderr, "TAZE_Init: %d\n", rc);
        return 1;
    }
    if (stat(argv[1], &st) == 0 && S_ISDIR(st.st_mode)) {
        rc = TAZE_LoadPatternDir(h, argv[1], argc > 2 ? argv[2] : "taz");
    } else {
        rc = TAZE_LoadPattern(h, argv[1]);
    }
    if (rc != 0) {
        fprintf(stderr, "cannot load %s: %d\n", argv[1], rc);
        TAZE_Fini(h);
        return 1;
    }

    if (TAZE_GetPatternVersion(h, text, (int)sizeof text) == 0) printf("pattern version: %s\n", text);
    if (TAZE_GetCompilerVersion(h, text, (int)sizeof text) == 0) printf("compiler version: %s\n", text);
    print_rules(h);
    printf("exact list 0 holds malware.example.com: %s\n",
           answer(TAZE_PatternSearchStringList(h, 0, "MALWARE.example.com", PT_TAZ)));
    printf("suffix list 0 ends download.example.biz: %s\n",
           answer(TAZE_PatternSearchSuffixList(h, 0, "download.example.biz", PT_TAZ)));
    printf("ip list 0 holds 10.1.2.3: %s\n", answer(TAZE_PatternSearchIPRangeList(h, 0, 0x0A010203u, PT_TAZ)));
    printf("port list 0 holds 137: %s\n", answer(TAZE_PatternSearchPortRangeList(h, 0, 137, PT_TAZ)));
    print_map_entry(h, "malware.example.com");
    if (TAZE_GetThreatType(h, 1001, &threat) == 0) printf("threat type of rule 1001: %u\n", threat);
    if (TAZE_GetUlmInfo(h, &ulm) == 0) printf("second pattern: %s\n", ulm);

    TAZE_Fini(h);
    return 0;
}
