// A valid path of root, intermediate and server, which tests verify after changing one property.
#pragma once

#include "testing/CertificateAuthority.h"

#include "Backup/Core/OpenSSL.h"

#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace Testing::Trust {

struct Scene;
using Change = std::function<void(Scene&)>;

struct Scene
{
    static constexpr const char* Host = "backup.example";

    CertificateForm rootForm = AuthorityForm("Root");
    CertificateForm middleForm = AuthorityForm("Middle");
    CertificateForm serverForm = ServerForm(Host);
    std::string host = Host;
    bool sendsMiddle = true;
    bool isSelfSigned = false;
    bool isAnchor = false;
    bool isPinned = false;
    Change present; ///< applied to the certificates after they are created

    std::optional<Certificate> root, middle, server;
    std::string sent;
    std::vector<std::string> chain;
    Backup::OpenSSL::TrustOptions options;
    Backup::OpenSSL::TrustReport report;

    Scene() { options.time = JudgementTime; }

    /// Makes the certificates, verifies them and returns the result.
    bool Judge()
    {
        root = Certificate::SelfSigned(rootForm);
        middle = root->Issue(middleForm);
        server = isSelfSigned ? Certificate::SelfSigned(serverForm) : middle->Issue(serverForm);
        sent = server->Pem();
        if (sendsMiddle)
            chain.push_back(middle->Der());
        if (isPinned)
            options.pinnedKey = Krt::YString(server->KeyHash().c_str());
        else
            options.anchors.push_back(isAnchor ? sent : root->Pem());
        if (present)
            present(*this);
        return Backup::OpenSSL::IsCertificateTrusted(sent, chain, Krt::YString(std::string_view(host)),
                                                     options, &report);
    }
};

/// Sets the names of the server's certificate, and the name by which the server is reached.
inline Change Names(const std::vector<std::string>& names, const std::string& host = Scene::Host)
{
    return [=](Scene& scene) {
        scene.serverForm.names = names;
        scene.host = host;
    };
}

template <class Value>
Change Set(CertificateForm Scene::*form, Value CertificateForm::*field, std::type_identity_t<Value> value)
{
    return [=](Scene& scene) {
        scene.*form.*field = value;
    };
}

inline Change Extend(CertificateForm Scene::*form, const char* extension, const char* value)
{
    return [=](Scene& scene) {
        (scene.*form).extensions[extension] = value;
    };
}

/// Applies the change after the certificates are created.
inline Change Present(const Change& change)
{
    return [=](Scene& scene) {
        scene.present = change;
    };
}

/// A certificate of the path.
using Maker = std::optional<Certificate> Scene::*;
inline constexpr Maker Root = &Scene::root, Middle = &Scene::middle, Server = &Scene::server;
inline constexpr auto OfRoot = &Scene::rootForm, OfMiddle = &Scene::middleForm, OfServer = &Scene::serverForm;

/// A revocation list: its issuer and the revoked certificates.
struct ListForm
{
    Maker issuer;
    std::vector<Maker> revoked = {};
    long long nextUpdate = JudgementTime + 1000;
    Extensions extensions = {};
};

/// Passes these revocation lists to the verification.
inline Change Lists(const std::vector<ListForm>& forms)
{
    return Present([=](Scene& scene) {
        for (const ListForm& form : forms) {
            std::vector<Certificate> revoked;
            for (const Maker each : form.revoked)
                revoked.push_back(*(scene.*each));
            scene.options.revocationLists.push_back(
                (scene.*form.issuer)->RevocationList(revoked, form.nextUpdate, form.extensions));
        }
    });
}

} // namespace Testing::Trust
