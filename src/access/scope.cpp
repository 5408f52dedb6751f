#include "tarnkit/scope.h"

Scope::Scope() = default;
Scope::Scope(const Scope& other) = default;
Scope::~Scope() = default;
Scope& Scope::operator=(const Scope& other) = default;

void Scope::AddId(int id) { id_ = id; }
void Scope::AddName(std::string name) { name_ = std::move(name); }
void Scope::AddUrl(std::string url) { url_ = std::move(url); }
void Scope::AddPermissionsList(std::string permission) { permissions_.push_back(std::move(permission)); }

int Scope::GetId() const { return id_; }
std::string Scope::GetName() const { return name_; }
std::string Scope::GetUrl() const { return url_; }
const std::vector<std::string>& Scope::GetPermissions() const { return permissions_; }
