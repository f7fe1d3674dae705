// The gateway's model: whole, consistent in itself, and true to the providers and methods that it names.
#include "platform/ve_json.h"
#include "veld/live/live.h"
#include "veld/machine/machine.h"
#include "veld/methods/methods.h"
#include "veld/model/check.h"
#include "veld/model/document.h"
#include "veld/model/password.h"
#include "veld/model/scheme.h"
#include "veld/session/accounts.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <string>

using namespace veld;

namespace
{

class Gateway : public testing::Test
{
protected:
    void SetUp() override
    {
        document = document_read(KEST_SOURCE_DIR "/models/gateway", &error);
        ASSERT_TRUE(document) << error;
        model = scheme_load(document.get(), &error);
        ASSERT_TRUE(model) << error;
    }

    // Every node of the scheme, templates and arguments included, with its path.
    static void walk(const scheme &of, const std::string &path,
                     const std::function<void(const scheme &, const std::string &)> &see)
    {
        for (const auto &child : of.children) {
            see(*child, path + "." + child->name);
            walk(*child, path + "." + child->name, see);
        }
        if (of.element) {
            see(*of.element, path + ".{i}");
            walk(*of.element, path + ".{i}", see);
        }
    }

    const scheme *find(const std::string &path) const
    {
        const scheme *found = nullptr;
        walk(*model, "", [&](const scheme &each, const std::string &at) {
            if (at == "." + path)
                found = &each;
        });
        return found;
    }

    std::string error;
    json_ref document;
    std::unique_ptr<scheme> model;
};

// All keys of the document's nodes, each with how often it occurs.
void count_keys(const json_t *node, std::map<std::string, int> *keys)
{
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(const_cast<json_t *>(node), key, value)
    {
        (*keys)[key]++;
        std::string_view name = key;
        if (name == "template")
            count_keys(value, keys);
        const char *child = nullptr;
        json_t *below = nullptr;
        if (name == "children" || name == "own" || name == "input" || name == "output")
            json_object_foreach(value, child, below) count_keys(below, keys);
    }
}

} // namespace

TEST_F(Gateway, HoldsWhatAGatewayHas)
{
    int objects = 0;
    int parameters = 0;
    walk(*model, "", [&](const scheme &each, const std::string &) {
        // What an instance looks like is the table's, and max_instance and order are nobody's declaration.
        bool own = each.parent == nullptr || each.parent->element.get() != &each;
        objects += each.is_object() && !each.argument && own ? 1 : 0;
        parameters += each.kind == node_kind::parameter && !each.argument && each.from != source::max_instance &&
                              each.from != source::order
                          ? 1
                          : 0;
    });
    EXPECT_GE(objects, 40);
    EXPECT_GE(parameters, 250);
    for (const char *path : {"Device.DeviceInfo.Manufacturer",
                             "Device.DeviceInfo.Uptime",
                             "Device.DeviceInfo.UpgradeProgress",
                             "Device.DeviceInfo.UpgradeStatus",
                             "Device.DeviceInfo.MemoryStatus.Total",
                             "Device.DeviceInfo.ProcessStatus.Process.{i}.PID",
                             "Device.Time.Enable",
                             "Device.Ethernet.Interface.{i}.Stats.BytesSent",
                             "Device.IP.Interface.{i}.IPv4Address.{i}.IPAddress",
                             "Device.Hosts.Host.{i}.HostName",
                             "Device.DNS.Client.Server.{i}.DNSServer",
                             "Device.DNS.SearchDomain.{i}",
                             "Device.NAT.PortMapping.order",
                             "Device.WiFi.AccessPoint.{i}.Security.KeyPassphrase",
                             "Device.Firewall.Chain.{i}.Rule.{i}.Target",
                             "Device.DHCPv4.Server.Pool.{i}.StaticAddress.{i}.Yiaddr",
                             "Device.Users.User.{i}.Password",
                             "Device.IP.Diagnostics.IPPing.Host",
                             "Device.DNS.Diagnostics.NSLookup.Result.1.IPAddresses",
                             "DataModelVersion"})
        EXPECT_NE(find(path), nullptr) << path;
}

TEST_F(Gateway, ShowsEveryTypeFlagAndConstraint)
{
    std::set<value_type> types;
    bool low_only = false;
    bool high_only = false;
    bool short_only = false;
    bool long_only = false;
    walk(*model, "", [&](const scheme &each, const std::string &) {
        types.insert(each.type);
        low_only = low_only || (each.min_inclusive && !each.max_inclusive);
        high_only = high_only || (!each.min_inclusive && each.max_inclusive);
        short_only = short_only || (!each.min_length && each.max_length);
        long_only = long_only || (each.min_length && !each.max_length);
    });
    EXPECT_EQ(types.size(), size_t(value_type::toggle) + 1);
    EXPECT_TRUE(low_only && high_only && short_only && long_only);

    std::map<std::string, int> keys;
    json_ref all(json_pack("{s:O}", "children", json_object_get(document.get(), "root")));
    count_keys(all.get(), &keys);
    for (const char *key :
         {"type",         "access",       "default",   "enum",      "multi",     "ordered",  "runtime", "unique",
          "minInclusive", "maxInclusive", "minLength", "maxLength", "minCount",  "maxCount", "regex",   "offValue",
          "handler_get",  "handler_set",  "children",  "template",  "instances", "own",      "order",   "live",
          "read",         "write",        "secret",    "input",     "output",    "method",   "entries"})
        EXPECT_GT(keys[key], 0) << key;
}

TEST_F(Gateway, DefaultsAndOffValuesFulfilTheirConstraints)
{
    walk(*model, "", [&](const scheme &each, const std::string &path) {
        if (each.kind != node_kind::parameter || each.from == source::max_instance || each.from == source::order)
            return;
        json_ref kept;
        EXPECT_EQ(value_check(each, each.initial.get(), &kept).message, "") << path;
        if (each.off_value) {
            EXPECT_EQ(value_check(each, each.off_value.get(), &kept).message, "") << path;
        }
    });
}

TEST_F(Gateway, FactoryValuesFulfilTheirConstraints)
{
    machine_backend own;
    std::unique_ptr<tree> fresh = document_tree(document.get(), &own, &error);
    ASSERT_TRUE(fresh) << error;
    int seen = 0;
    std::function<void(node *)> check = [&](node *of) {
        if (of->what->kind == node_kind::parameter && of->value) {
            json_ref kept;
            EXPECT_EQ(value_check(*of->what, of->value.get(), &kept).message, "") << tree::name(of);
            seen++;
        }
        for (const auto &child : of->children)
            check(child.get());
        if (of->table)
            for (const auto &instance : of->table->instances)
                check(instance.get());
    };
    check(fresh->root());
    EXPECT_GT(seen, 100);
    ASSERT_TRUE(fresh->find("Device.NAT.PortMapping.3.Alias"));
    EXPECT_EQ(fresh->listed(fresh->find("Device.NAT.PortMapping.").at)[0]->number, 2U);
}

TEST_F(Gateway, NamesOnlyProvidersAndMethodsThatExist)
{
    int live = 0;
    int methods = 0;
    walk(*model, "", [&](const scheme &each, const std::string &path) {
        if (each.kind == node_kind::method) {
            EXPECT_TRUE(method_known(each.provider)) << path;
            methods++;
        } else if (each.from == source::live) {
            EXPECT_TRUE(each.kind == node_kind::table ? live_rows_known(each.provider)
                                                      : live_value_known(each.provider))
                << path << ": " << each.provider;
            live++;
        }
    });
    EXPECT_GE(live, 20);
    EXPECT_EQ(methods, 2);
}

TEST_F(Gateway, LiveValuesHaveTheTypesOfTheirParameters)
{
    std::function<void(const scheme &, const json_t *, const std::string &)> row_fits =
        [&](const scheme &of, const json_t *row, const std::string &path) {
            if (of.from == source::row_field) {
                json_t *value = json_object_get(row, of.provider.c_str());
                ASSERT_NE(value, nullptr) << path << ": no field " << of.provider;
                json_ref kept;
                EXPECT_EQ(value_check(of, value, &kept).message, "") << path;
            } else if (of.from == source::row_table) {
                json_t *rows = json_object_get(row, ("#rows:" + of.provider).c_str());
                ASSERT_TRUE(json_is_array(rows)) << path;
                for (size_t i = 0; i < json_array_size(rows); i++)
                    row_fits(*of.element, json_array_get(rows, i), path + ".{i}");
            }
            if (of.kind == node_kind::object)
                for (const auto &child : of.children)
                    row_fits(*child, row, path + "." + child->name);
        };
    int rows_seen = 0;
    walk(*model, "", [&](const scheme &each, const std::string &path) {
        json_ref kept;
        if (each.from != source::live)
            return;
        if (each.kind == node_kind::parameter) {
            json_ref value(live_value(each.provider));
            if (value) {
                EXPECT_EQ(value_check(each, value.get(), &kept).message, "") << path;
            }
            return;
        }
        json_ref rows(live_rows(each.provider));
        for (size_t i = 0; i < json_array_size(rows.get()); i++, rows_seen++)
            row_fits(*each.element, json_array_get(rows.get(), i), path + ".{i}");
    });
    EXPECT_GT(rows_seen, 3);
}

TEST_F(Gateway, OnlyAdministratorsSeeTheUsers)
{
    walk(*model, "", [&](const scheme &each, const std::string &path) {
        if (path.starts_with(".Device.Users.")) {
            EXPECT_EQ(each.read, role::administrator) << path;
        }
        if (each.name.ends_with("Password") || each.name.ends_with("Passphrase")) {
            EXPECT_TRUE(each.secret) << path;
        }
    });
}

TEST_F(Gateway, TheFactoryLoginsWork)
{
    const scheme *users = find("Device.Users.User");
    ASSERT_NE(users, nullptr);
    std::map<std::string, bool> seen;
    const char *number = nullptr;
    json_t *user = nullptr;
    json_object_foreach(users->instances.get(), number, user)
    {
        std::string name = json_string_value(json_object_get(user, "Username"));
        EXPECT_TRUE(password_matches(name, json_string_value(json_object_get(user, "Password")))) << name;
        EXPECT_FALSE(password_matches(name + "x", json_string_value(json_object_get(user, "Password")))) << name;
        seen[name] = json_is_true(json_object_get(user, "X_VELD_Administrator"));
    }
    EXPECT_EQ(seen, (std::map<std::string, bool>{{"admin", true}, {"user", false}}));
}

TEST_F(Gateway, AHashThatIsNotTheAccountsAnyMoreLetsNobodyIn)
{
    machine_backend own;
    std::unique_ptr<tree> fresh = document_tree(document.get(), &own, &error);
    ASSERT_TRUE(fresh) << error;
    const std::string hash = login_hash(fresh.get(), "user");
    EXPECT_TRUE(login_by_hash(fresh.get(), "user", hash));
    EXPECT_FALSE(login_by_hash(fresh.get(), "user", hash + "x"));
    EXPECT_FALSE(login_by_hash(fresh.get(), "nobody at all", hash));
    EXPECT_FALSE(login_by_hash(fresh.get(), "user", ""));
}

TEST_F(Gateway, HostsCanBeAddedBeforeTheyAreFilledIn)
{
    machine_backend own;
    std::unique_ptr<tree> fresh = document_tree(document.get(), &own, &error);
    ASSERT_TRUE(fresh) << error;
    for (const char *path :
         {"Device.Hosts.Host.", "Device.NAT.PortMapping.", "Device.Users.User.", "Device.DNS.SearchDomain."}) {
        node *table = fresh->find(path).at;
        ASSERT_NE(table, nullptr) << path;
        EXPECT_TRUE(table->what->writable && table->what->deletable) << path;
        node *first = fresh->add(table, 1000);
        node *second = fresh->add(table, 1000);
        EXPECT_EQ(second->number, first->number + 1);
        for (const auto &child : second->children) {
            if (child->what->unique) {
                json_ref value = fresh->value(child.get());
                EXPECT_EQ(fresh->taken(child.get(), value.get()), 0U) << tree::name(child.get());
            }
        }
    }
}
