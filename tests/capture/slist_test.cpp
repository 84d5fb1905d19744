// The sorted string-keyed list.
#include "capture/slist.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>

static std::string joined(const slist *list)
{
    std::string text;
    for (int i = 0; i < list->n; i++)
        text += std::string(list->keys[i]) + " ";
    return text;
}

TEST(Slist, NewListIsEmpty)
{
    slist *list = slist_new();
    EXPECT_EQ(0, list->n);
    EXPECT_EQ(nullptr, list->keys);
    EXPECT_EQ(nullptr, list->values);
    EXPECT_EQ(0, slist_findstr("a", 0, list->keys));
    EXPECT_EQ(nullptr, slist_find(list, "a"));
    slist_free(list, nullptr);
}

TEST(Slist, KeysAreInByteOrder)
{
    const char *orders[][3] = {{"b", "A", "a"}, {"a", "b", "A"}, {"A", "a", "b"},
                               {"b", "a", "A"}, {"A", "b", "a"}, {"a", "A", "b"}};
    for (const auto &order : orders) {
        slist *list = slist_new();
        for (const char *key : order)
            slist_insert(list, key, nullptr);
        EXPECT_EQ("A a b ", joined(list));
        slist_free(list, nullptr);
    }
}

TEST(Slist, FindstrGivesTheFirstKeyNotLess)
{
    char b[] = "b";
    char d[] = "d";
    char d2[] = "d";
    char *keys[] = {b, d, d2};
    EXPECT_EQ(0, slist_findstr("a", 3, keys));
    EXPECT_EQ(0, slist_findstr("b", 3, keys));
    EXPECT_EQ(1, slist_findstr("c", 3, keys));
    EXPECT_EQ(1, slist_findstr("d", 3, keys));
    EXPECT_EQ(3, slist_findstr("e", 3, keys));
    EXPECT_EQ(0, slist_findstr("", 3, keys));
}

TEST(Slist, KeepsACopyOfTheKey)
{
    slist *list = slist_new();
    char key[] = "key";
    int value = 1;
    slist_insert(list, key, &value);
    key[0] = 'x';
    EXPECT_EQ(&value, slist_find(list, "key"));
    EXPECT_EQ(nullptr, slist_find(list, "xey"));
    slist_free(list, nullptr);
}

TEST(Slist, EqualKeysAreNotLookedFor)
{
    slist *list = slist_new();
    int first = 1;
    int second = 2;
    slist_insert(list, "k", &first);
    slist_insert(list, "k", &second);
    EXPECT_EQ(2, list->n);
    EXPECT_EQ(&second, slist_find(list, "k")) << "in front of the one before";
    slist_free(list, nullptr);
}

static int g_released;

static void release(void *value)
{
    g_released += *static_cast<int *>(value);
    free(value);
}

TEST(Slist, FreeReleasesEveryValue)
{
    slist *list = slist_new();
    for (const int n : {1, 10, 100}) {
        auto *value = static_cast<int *>(malloc(sizeof(int)));
        *value = n;
        slist_insert(list, std::to_string(n).c_str(), value);
    }
    g_released = 0;
    slist_free(list, release);
    EXPECT_EQ(111, g_released);
}

TEST(Slist, RandomRunsBehaveLikeAMap)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    for (int run = 0; run < 50; run++) {
        slist *list = slist_new();
        std::map<std::string, int *> model;
        std::vector<int> values(200);
        for (int &value : values) {
            std::string key;
            for (auto n = rng() % 4; n > 0; n--)
                key += static_cast<char>("aAbB\xE4"[rng() % 5]);
            auto *found = static_cast<int *>(slist_find(list, key.c_str()));
            const auto known = model.find(key);
            ASSERT_EQ(known == model.end() ? nullptr : known->second, found);
            if (found == nullptr) {
                slist_insert(list, key.c_str(), &value);
                model[key] = &value;
            }
        }
        ASSERT_EQ(model.size(), static_cast<size_t>(list->n));
        int i = 0;
        for (const auto &[key, value] : model) {
            EXPECT_EQ(key, list->keys[i]);
            EXPECT_EQ(value, list->values[i]);
            i++;
        }
        slist_free(list, nullptr);
    }
}
