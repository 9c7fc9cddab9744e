"""The address of a package's folder: what clients may be sent to."""

from __future__ import annotations

from . import judge
from .refusal import Refusal, refuse


def check(text: str, clients: judge.Judge) -> judge.Url:
    """The address as a client understands it. Raises Refusal if it is not what was meant."""
    def no(what: str) -> Refusal:
        return refuse("address", f"the packages' address \"{text}\" {what}")
    if any(ord(character) <= 32 or ord(character) > 126 for character in text):
        raise no("holds a blank or another character that ends it for clients: use plain letters, digits and \"-._~/\"")
    verdict = clients.address(text)
    if verdict.url is None:
        raise no(f"means nothing to clients ({verdict.message}): it must look like http://HOST/FOLDER/")
    url = verdict.url
    scheme = text.partition(":")[0].lower()
    if scheme not in ("http", "https"):
        raise no(f"has the scheme \"{scheme}\": use http or https")
    if url.user or url.password or "@" in text.split("/")[2]:
        raise no("holds a user name or a password, which everybody could read: leave them out")
    if "?" in text or "#" in text:
        raise no("holds a query or a fragment, and the package's name would stand behind it: leave it out")
    default = {"http": 80, "https": 443}[scheme]
    host = f"[{url.host}]" if ":" in url.host else url.host
    understood = f"{scheme}://{host}{'' if url.port == default else f':{url.port}'}{url.path}"
    if understood.lower() != f"{scheme}{text[len(scheme):]}".lower().replace(f":{default}/", "/", 1):
        raise no(f"is understood by clients as {understood}: write it so that nothing is lost")
    return url
