<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1">
<context>
    <name>AboutDialog</name>
    <message>
        <source>© 2012 Orvantics | Zandrel Sync is a trademark of Orvantics | Phone platform names are trademarks of their respective owners</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Zandrel Sync Version: </source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>AboutForm</name>
    <message>
        <source>About Zandrel Sync</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Zandrel Sync</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>AdvancedSettings</name>
    <message>
        <source>Advanced</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Only the base folder</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Phones see and change nothing outside the folder they are first shown</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Password needed to identify</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Without it, asking who this computer is logs a phone in</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Read only</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Phones may browse and download, but not upload, create, delete or rename</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>all addresses</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>One IPv4 address of this computer to serve on, or empty for all</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Listen on:</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>DesktopNotifier</name>
    <message>
        <source>Sending File</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Receiving File</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Update Available</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Zandrel Sync Is Not Serving</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>MainMenu</name>
    <message>
        <source>Zandrel Sync Settings</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Version:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Computer name:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>User name:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>IP address:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The address phones should use to reach this computer</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Port:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>A TCP port from 1024 to 65535</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Password:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Leave empty to keep the current password</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Show notifications for transfers</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Start at login</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Enable logging</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Transfer:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Log:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Save</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>About</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Check For Update</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Quit</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Click to Quit this App</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>SettingsDialog</name>
    <message>
        <source>Save</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Saving...</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Starting the server...</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Port %1 is used by another program, so phones cannot connect. Quit that program, or choose another port and save.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The server could not listen for phones.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Serving on port %1, but this computer has no network address yet.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Serving on port %1 at %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Enter a password and a port from 1024 to 65535 to save</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Enter a password to save</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Enter a port from 1024 to 65535 to save</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Enter an IPv4 address such as 192.168.1.20 to listen on, or none, to save</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>TrayMenu</name>
    <message>
        <source>Zandrel Sync</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Open Settings</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Check For Update</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>About</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Quit</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Click to Quit this App</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Port %1 is used by another program, so phones cannot connect. Quit that program, or choose another port in the settings.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The server could not listen for phones.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>UpdateDialog</name>
    <message>
        <source>Zandrel Sync Ver. %@ is available now<byte value="xd"/><byte value="xd"/>ChangeLog:<byte value="xd"/>%@</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Zandrel Sync: </source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Retrieval Error</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source><byte value="xd"/><byte value="xd"/>Retrieval Error</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source><byte value="xd"/>Invalid file path</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source><byte value="xd"/>Bad file checksum</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>No update available</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>UpdateForm</name>
    <message>
        <source>Check For Update</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Checking for updates...</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Close</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Download and Install</source>
        <translation type="unfinished"></translation>
    </message>
</context>
</TS>
