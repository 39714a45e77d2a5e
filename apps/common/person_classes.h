#pragma once
// The agent's and the client's people and pseudo-people.
//
// A person makes its identity in init(). On the client a person is built
// from its dictionary form with personWithDictionary(), which hands the
// identity's dictionary to init() so that the identity is made once, with
// the agent's UUID; a person made otherwise starts with an identity of its
// own that the first identity dictionary replaces.

#include "identity_classes.h"
#include "model/ztperson.h"

class AgentPerson : public ZTAbstractPerson
{
    ZT_OBJECT(AgentPerson, ZTAbstractPerson)
public:
    //! The identity's nickname.
    QString displayNickname() const;
    ZT_READONLY_KEY(displayNickname)

    void init() override;
    //! Applies the entries to the identity it has (or to the identity the
    //! dictionary names).
    void setIdentityDictionary(const QVariant &dictionary) override;
};

class ClientPerson : public ZTAbstractPerson
{
    ZT_OBJECT(ClientPerson, ZTAbstractPerson)
public:
    //! The person registered under the dictionary's UUID, or a new one, with
    //! every entry of the dictionary set.
    static zt::Ref<ClientPerson> personWithDictionary(const QVariant &dictionary);

    QString displayNickname() const;
    ZT_READONLY_KEY(displayNickname)

    void init() override;
    //! The identity with the dictionary's UUID, made or updated; a previous
    //! identity with another UUID is invalidated.
    void setIdentityDictionary(const QVariant &dictionary) override;

    // Forwarded to the agent.
    void sendFileAtPath(const QString &path) override;
    void scheduleAuthCheckPrioritizing(bool prioritize) override;
    void resetWhois() override;
    void addToFilters() override;
    void removeFromFilters() override;
    void addToFriends() override;
    void removeFromFriends() override;

private:
    QVariant m_initialIdentity; // read by init()
};

class AgentPseudoPerson : public ZTAbstractPseudoPerson
{
    ZT_OBJECT(AgentPseudoPerson, ZTAbstractPseudoPerson)
};

class ClientPseudoPerson : public ZTAbstractPseudoPerson
{
    ZT_OBJECT(ClientPseudoPerson, ZTAbstractPseudoPerson)
public:
    //! The mirrored person under the dictionary's UUID (built when not yet
    //! known); nil, or a dictionary naming no person, unassigns.
    void setRealPersonDictionary(const QVariant &dictionary) override;

    // Forwarded to the agent.
    void addToFriends() override;
    void removeFromFriends() override;
    void addToFilters() override;
    void removeFromFilters() override;
};
