"""What a web server must do for clients, as configurations of three servers, and in words for a CDN."""

from __future__ import annotations

import re
from pathlib import Path

from .settings import Settings


def everything(settings: Settings, docroot: Path) -> dict[str, str]:
    """Files by name."""
    return {"nginx.conf": nginx(settings, docroot), "apache.conf": apache(settings, docroot), "web.config": iis(), "cdn.txt": cdn(settings)}


def nginx(settings: Settings, docroot: Path, *, listen: str = "80", log: str = "/var/log/nginx/lumaris.access.log") -> str:
    """For the http block of nginx."""
    # Names of our own: one nginx may have several publications.
    mine = "lumaris_" + re.sub(r"[^A-Za-z0-9]", "_", settings.host)
    return f"""# The updates of Halvoro, for the http block of nginx (/etc/nginx/conf.d). Made by lumaris-publish.

# The host stands in the place of the remote user: lumaris-publish fleet finds out who still asks an old one.
log_format {mine} '$remote_addr - $host [$time_local] "$request" $status $body_bytes_sent "$http_referer" "$http_user_agent"';

# A client asks for the signature of a description, then for the description. A switch between the two would show it files that do not belong
# together. So the first answer names its set in a cookie, which the client sends with the second request, and gets that set's file.
map $cookie_lumaris_set ${mine}_folder {{
    default "";
    "~^(?<{mine}_asked>[0-9]+)$" "/sets/${mine}_asked";
}}
map ${mine}_root ${mine}_set {{
    default "";
    "~/sets/(?<{mine}_found>[0-9]+)$" ${mine}_found;
}}

server {{
    listen {listen};
    server_name {settings.host};
    root {docroot};
    access_log {log} {mine};
    types {{ text/plain txt minisig; application/octet-stream msi; }}
    default_type application/octet-stream;
    # The link to the current set is looked up for every request.
    open_file_cache off;

    location ~ ^/Halvoro/.+\\.txt\\.minisig$ {{
        root {docroot}/current;
        # Resolved here, once: the file and the cookie come from the same set.
        set ${mine}_root $realpath_root;
        rewrite ^ /.set$uri last;
    }}
    location /.set/ {{
        internal;
        alias ${mine}_root/;
        add_header Cache-Control "no-cache";
        add_header Set-Cookie "lumaris_set=${mine}_set; Path=/Halvoro/";
    }}
    location ~ ^/Halvoro/.+\\.txt$ {{
        add_header Cache-Control "no-cache";
        try_files ${mine}_folder$uri $uri =404;
    }}
    location /packages/ {{
        add_header Cache-Control "public, max-age=31536000, immutable";
    }}
    location /sets/ {{ return 404; }}
    location /current/ {{ return 404; }}
}}
"""


def apache(settings: Settings, docroot: Path) -> str:
    """A virtual host of Apache. It does not know sets: clients that ask in the moment of a switch say so once."""
    return f"""# The updates of Halvoro, for Apache 2.4 with mod_headers. Made by lumaris-publish.
<VirtualHost *:80>
    ServerName {settings.host}
    DocumentRoot {docroot}
    LogFormat "%h - %{{Host}}i %t \\"%r\\" %>s %b \\"%{{Referer}}i\\" \\"%{{User-Agent}}i\\"" lumaris
    CustomLog ${{APACHE_LOG_DIR}}/lumaris.access.log lumaris
    AddType text/plain .txt .minisig
    AddType application/octet-stream .msi
    # The current set is a symbolic link.
    <Directory {docroot}>
        Options FollowSymLinks
        AllowOverride None
        Require all granted
    </Directory>
    <LocationMatch "^/Halvoro/">
        Header set Cache-Control "no-cache"
    </LocationMatch>
    <LocationMatch "^/packages/">
        Header set Cache-Control "public, max-age=31536000, immutable"
    </LocationMatch>
</VirtualHost>
"""


def iis() -> str:
    """For the folder that IIS shows; without the types it answers 404. It is filled by `push --plain`."""
    return """<?xml version="1.0" encoding="utf-8"?>
<!-- The updates of Halvoro, for IIS. Made by lumaris-publish. Fill the folder with: lumaris-publish push DEST (with the option for plain copies) -->
<configuration>
  <system.webServer>
    <staticContent>
      <remove fileExtension=".minisig"/>
      <mimeMap fileExtension=".minisig" mimeType="text/plain"/>
      <remove fileExtension=".msi"/>
      <mimeMap fileExtension=".msi" mimeType="application/octet-stream"/>
    </staticContent>
  </system.webServer>
  <location path="Halvoro">
    <system.webServer>
      <staticContent><clientCache cacheControlMode="DisableCache"/></staticContent>
    </system.webServer>
  </location>
  <location path="packages">
    <system.webServer>
      <staticContent><clientCache cacheControlMode="UseMaxAge" cacheControlMaxAge="365.00:00:00" cacheControlCustom="public, immutable"/></staticContent>
    </system.webServer>
  </location>
</configuration>
"""


def cdn(settings: Settings) -> str:
    """What to tell a CDN or an object store."""
    return f"""Rules for a CDN or an object store in front of http://{settings.host}/. Made by lumaris-publish.

1. /Halvoro/* (descriptions and their signatures): never cached at the edge, or asked about with the origin every time ("no-cache",
   revalidate). Programs send "Cache-Control: no-cache"; let that not be a reason to refuse them. Cookies of /Halvoro/ pass in both directions.
2. /packages/*: cached for a year, whatever the request says; the files never change. Cookies and queries are not part of the key.
3. Port 80 without a redirect to https for {settings.host}: the programs ask over HTTP and trust the signature alone.
4. Types: .txt and .minisig are text/plain, .msi is application/octet-stream. No compression on the fly, no rewriting of any content.
5. An object store without links: fill it with "lumaris-publish push DEST --plain", packages first. Between the two files of a description a
   client may say "Invalid Minisign signature" once; its next run succeeds.
"""
