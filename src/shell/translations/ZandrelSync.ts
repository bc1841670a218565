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
    <name>ActivityModel</name>
    <message>
        <source>Connected</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Disconnected</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Downloaded</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Uploaded</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Replaced</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Created folder</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Deleted file</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Deleted folder</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Renamed</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>kept</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>restored</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>restored as %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>kept, since purged</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>not kept: %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>not kept</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>%1 → %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>In the trash as %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Restored to %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Time</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Phone</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>What</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Path</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Size</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Kept</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>ActivityWindow</name>
    <message>
        <source>Everything</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Changes to files</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Deleted</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Replaced</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Uploaded</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Created folders</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Renamed</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Downloaded</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Phones coming and going</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Activity</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>All phones</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>From</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>To</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Phone:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>What:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Empty Kept Items</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Removes for good what Zandrel Sync kept in the trash; what you put there stays</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Show in Folder</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Restore</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Puts the selected kept items back where they were, or beside what stands there now</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Restore All Shown</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Puts back every kept item the table shows</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The activity journal cannot be read: %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Nothing phones did matches.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>1 entry</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>%1 entries</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Kept items use %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Nothing is kept at the moment</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>%1: restored to %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>%1: not restored: %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Restored %1 of %2.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Working...</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Remove for good everything phones deleted or replaced that Zandrel Sync keeps in the trash (%1)? It cannot be restored afterwards. What you put in the trash yourself stays.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Empty Kept Items?</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Kept items removed for good: %1.</source>
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
    <message>
        <source>Everyone</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Ask for new phones</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Known phones only</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Which phones may connect; blocked phones never may (see Phones in the menu)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Who may connect:</source>
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
    <message>
        <source>Zandrel Sync Settings Not Read</source>
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
    <name>PhoneRequests</name>
    <message>
        <source>A Phone Asks To Connect</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The phone at %1 wants to reach the files on this computer.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Allow</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Block</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>PhonesWindow</name>
    <message>
        <source>never</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Phones</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Everyone</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Ask for new phones</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Known phones only</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Blocked phones are kept out whatever this says</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Phone</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Since</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Doing</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>File</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Progress</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Moved</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Name</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Standing</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Hardware address</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Last seen</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Sessions</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Sent</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Received</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Allow</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Block</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Waiting for your answer</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Rename…</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Forget</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Who may connect:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Connected now</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Known phones</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>No phone connected</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>1 phone connected</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>%1 phones connected</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>held out</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>idle</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>%1 of %2 (%3%)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>%1 to it, %2 from it</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Rename Phone</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Name for the phone at %1:</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>SafetySettings</name>
    <message>
        <source>Safety</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Keep what phones delete</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Deleted files and folders go to the trash, where they can be restored</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Keep what uploads replace</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>A file an upload overwrites goes to the trash first</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source> days</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source> % of the disk</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The oldest kept items go first when they use more of a disk than this</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Activity...</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>What phones did, and restoring what they deleted or replaced</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>For at most</source>
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
        <source>Enter a port from 1024 to 65535 to save</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Enter an IPv4 address such as 192.168.1.20 to listen on, or none, to save</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Zandrel Sync %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>This copy runs from the build folder %1, which may not be there at your next login, so the login items are left as they are. Start at login takes effect for the installed program.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Starts %1 when you log in</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Quit Zandrel Sync?</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>This window is the only way back to Zandrel Sync on this desktop. Closing it quits, and phones can no longer connect. Quit?</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>TrayMenu</name>
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
    <message>
        <source>Activity</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The settings file %1 could not be read (%2). The default settings are in use; saving the settings window replaces the file with them.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Not serving — starting</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Not serving — port %1 is used by another program</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Not serving — the server could not listen for phones</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Serving — no phone connected</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Serving — 1 phone connected</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Serving — %1 phones connected</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Phones</source>
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
