#include "server/Options.h"

#include <CLI/CLI.hpp>
#include <map>

#include "runtime/qel_utf8.h"
#include "server/service/Lane.h"

namespace dsessd {

namespace {

constexpr int kUsageStatus = 2;

std::string checkInstanceName(const std::string& name) {
    const bool plain = name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-") ==
                       std::string::npos;
    return plain && !name.empty() ? "" : "takes letters, digits, '.', '_' and '-', not '" + name + "'";
}

std::string checkMember(const std::string& text) {
    const std::size_t slash = text.rfind('/');
    const bool whole = slash != std::string::npos && slash > 0 && slash + 1 < text.size();
    return whole && text.size() <= kMaxNameBytes && qel_utf8_is_text(text) ? "" : "takes REPLICA-SET/NAME";
}

void addData(CLI::App& command, std::string& data) {
    command.add_option("--data", data, "The data file (SQLite), or a database as a URI, postgresql://...")
        ->required()
        ->type_name("FILE|URI");
}

void describeServe(CLI::App& serve, ServeOptions& options) {
    static const std::map<std::string, Anonymous> kAnonymous{{"none", Anonymous::kNone}, {"read", Anonymous::kRead}};
    serve.add_option("--listen", options.listen, "Where to listen; port 0 lets the system pick one")
        ->required()
        ->type_name("HOST:PORT");
    addData(serve, options.data);
    serve.add_option("--instance", options.instances, "Names of the server instances, all of one cluster")
        ->required()
        ->type_name("NAME")
        ->check(CLI::Validator(checkInstanceName, ""));
    serve
        .add_option("--store-connections", options.storeConnections,
                    "How many connections to the store there may be; " + std::to_string(mostStoreConnections()) +
                        " unless given")
        ->type_name("NUMBER")
        ->check(CLI::Range(std::size_t{1}, mostStoreConnections()));
    serve.add_option("--anonymous", options.anonymous, "What may be done without a login; none unless given")
        ->transform(CLI::Transformer(kAnonymous).description(""))
        ->type_name("none|read");
    serve
        .add_option_function<std::string>(
            "--member",
            [&options](const std::string& text) {
                const std::size_t slash = text.rfind('/');
                options.membership = {text.substr(0, slash), text.substr(slash + 1)};
            },
            "Be this member of this replica set, and say now and then that it is there")
        ->type_name("REPLICA-SET/NAME")
        ->check(CLI::Validator(checkMember, ""));
    serve
        .add_option("--monitor", options.monitor,
                    "Where to answer a monitoring system, over plain HTTP: /healthz and /metrics")
        ->type_name("HOST:PORT");
    auto* certificate =
        serve.add_option("--tls-cert", options.tls.certificate, "The server's certificate and chain (PEM)")
            ->type_name("FILE");
    auto* key = serve.add_option("--tls-key", options.tls.key, "Its private key (PEM)")->type_name("FILE");
    certificate->needs(key);
    key->needs(certificate);
    serve.add_option("--tls-key-password-file", options.tls.keyPassword, "Its first line is the key's password")
        ->type_name("FILE")
        ->needs(key);
    auto* authorities = serve
                            .add_option("--client-ca", options.tls.clientAuthorities,
                                        "Clients need a certificate from one of these authorities (PEM)")
                            ->type_name("FILE")
                            ->needs(certificate);
    serve
        .add_option("--client-crl", options.tls.revocationLists,
                    "Clients whose certificate is on these lists are refused (PEM)")
        ->type_name("FILE")
        ->needs(authorities);
    serve
        .add_option("--client-names", options.tls.clientNames,
                    "Only clients with these subjects, such as /C=DE/O=Example/CN=desk")
        ->delimiter(',')
        ->type_name("NAME")
        ->needs(authorities);
}

void describeData(CLI::App& app, DataOptions& options) {
    const auto add = [&](DataOptions::Action action, const char* word, const char* text, const char* file) {
        CLI::App* command = app.add_subcommand(word, text);
        addData(*command, options.data);
        if (file != nullptr) {
            command->add_option("file", options.file, file)->required()->type_name("FILE");
        }
        command->callback([&options, action] { options.action = action; });
        return command;
    };
    add(DataOptions::Action::kLoad, "load", "Replace a cluster's contents by those of a JSON file",
        "The JSON file; - is standard input")
        ->footer(
            "A data file that does not exist is made. Administrators, the trace level and the cluster's identifier\n"
            "stay unless the file has them, as a dump does.");
    add(DataOptions::Action::kDump, "dump", "Write all that the store holds to a JSON file, which load reads",
        "The file; - is standard output");
    add(DataOptions::Action::kBackUp, "backup", "Copy a data file while it is in use", "The copy")
        ->footer("A database has tools of its own for that, such as pg_dump.");
    add(DataOptions::Action::kRestore, "restore", "Put a backup in the place of a data file", "The backup")
        ->footer("No dsessd may have the data file open.");
    add(DataOptions::Action::kUpgrade, "upgrade", "Raise a store of an older dsessd to this version", nullptr)
        ->footer("No dsessd may use the store. dsessd(8) has the order of an upgrade.");
}

void describeAdmin(CLI::App& admin, AdminOptions& options) {
    static const std::map<std::string, Role> kRoles{{"read", Role::kRead}, {"change", Role::kChange}};
    admin.require_subcommand(1);
    const auto addAction = [&](const char* word, const char* text, AdminOptions::Action action) {
        CLI::App* command = admin.add_subcommand(word, text);
        if (action != AdminOptions::Action::kList) {
            command->add_option("name", options.name, "The administrator's name")->required()->type_name("");
        }
        addData(*command, options.data);
        command->callback([&options, action] { options.action = action; });
        return command;
    };
    CLI::App* add = addAction("add", "Add an administrator, or give one a new password, and a role with --role",
                              AdminOptions::Action::kAdd);
    add->add_option("--role", options.role, "What the administrator may do; a new one may change unless given")
        ->transform(CLI::Transformer(kRoles).description(""))
        ->type_name("read|change");
    const std::string entry =
        "The password is asked for twice when standard input is a terminal, else it is the first line\n"
        "of standard input.";
    add->footer(entry + " A data file that does not exist is made.");
    addAction("password", "Give an administrator a new password", AdminOptions::Action::kPassword)->footer(entry);
    addAction("remove", "Remove an administrator", AdminOptions::Action::kRemove);
    addAction("list", "List the administrators and their roles", AdminOptions::Action::kList);
}

}  // namespace

Options parseOptions(int argc, char** argv) {
    ServeOptions serveOptions;
    DataOptions dataOptions;
    AdminOptions adminOptions;
    CLI::App app(
        "The reference session server. It keeps a cluster's realms, replica sets, sessions and key in\n"
        "a file or a database and answers administrators over HTTP or HTTPS. dsessd(8) has the details.",
        "dsessd");
    app.set_version_flag("--version", "dsessd " DSESSD_VERSION);
    app.require_subcommand(1);
    CLI::App* serve = app.add_subcommand("serve", "Serve a cluster until SIGTERM or SIGINT");
    describeServe(*serve, serveOptions);
    describeData(app, dataOptions);
    CLI::App* admin = app.add_subcommand("admin", "Manage administrators");
    describeAdmin(*admin, adminOptions);
    // After the subcommands, which would take it over.
    app.footer(
        "A first cluster:\n"
        "  dsessd load --data cluster.db cluster.json\n"
        "  dsessd admin add root --data cluster.db\n"
        "  dsessd serve --listen localhost:9080 --data cluster.db --instance blue");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("dsessd: ") + error.what() + "; 'dsessd --help' says more\n";
    });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return EndWith{app.exit(error) == 0 ? 0 : kUsageStatus};
    }
    if (serve->parsed()) {
        return serveOptions;
    }
    return admin->parsed() ? Options(adminOptions) : dataOptions;
}

}  // namespace dsessd
