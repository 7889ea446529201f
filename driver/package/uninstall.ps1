#Requires -RunAsAdministrator
<#
.SYNOPSIS
Removes what install.ps1 made: device, driver package, service, event provider and certificate. NEVER RUN ON WINDOWS
YET; README.md has each step by hand.

.DESCRIPTION
The Notifier refuses to be removed while it runs. Then a restart completes the removal: run this once more after it.

.PARAMETER Name
The driver's: zepn unless given.

.PARAMETER HardwareId
The device's, as given to install.ps1; ROOT\ and the driver's name unless given.

.PARAMETER Devcon
The WDK's devcon.exe, which removes the device where Windows is older than 10 2004; one on the PATH unless given.
#>
param(
    [string] $Name = 'zepn',
    [string] $HardwareId,
    [string] $Devcon = 'devcon.exe'
)
Set-StrictMode -Version 2.0
$ErrorActionPreference = 'Stop'
if (-not $HardwareId) { $HardwareId = "ROOT\$($Name.ToUpperInvariant())" }
$subject = "CN=Test signing of $Name"
$needsRestart = $false

# Runs a program; an exit code that is not accepted ends the script.
function Invoke-Tool([string] $Path, [string[]] $Arguments, [int[]] $Accept = @(0)) {
    Write-Host "> $Path $Arguments"
    & $Path $Arguments | Out-Host
    if ($Accept -notcontains $LASTEXITCODE) { throw "$Path ended with $LASTEXITCODE." }
}

# A device of the firmware's comes back by itself, so it stays. 3010, of devcon 1: done after a restart. pnputil removes
# devices since Windows 10 2004, which is build 19041.
$build = [int] (Get-ItemProperty 'HKLM:\SOFTWARE\Microsoft\Windows NT\CurrentVersion').CurrentBuildNumber
if ($HardwareId -like 'ROOT\*') {
    foreach ($device in @(Get-PnpDevice | Where-Object { $_.HardwareID -contains $HardwareId })) {
        if ($build -ge 19041) {
            Invoke-Tool 'pnputil.exe' @('/remove-device', $device.InstanceId) @(0, 3010)
        } else {
            Invoke-Tool $Devcon @('remove', ('@' + $device.InstanceId)) @(0, 1)
        }
        if ($LASTEXITCODE -ne 0) { $needsRestart = $true }
    }
}

# Every version that the driver store holds, under the names that it gave them.
$packages = @(Get-WindowsDriver -Online | Where-Object { (Split-Path $_.OriginalFileName -Leaf) -eq "$Name.inf" })
foreach ($package in $packages) {
    Invoke-Tool 'pnputil.exe' @('/delete-driver', $package.Driver, '/uninstall', '/force') @(0, 3010)
    if ($LASTEXITCODE -eq 3010) { $needsRestart = $true }
}

# Windows may leave these two; both belong to the INF. 1060: no such service. 1072: marked for deletion already.
Invoke-Tool 'sc.exe' @('delete', $Name) @(0, 1060, 1072)
if ($Name -eq 'zepn' -and (& wevtutil.exe ep) -contains 'Zepn-Notifier') {
    Invoke-Tool 'wevtutil.exe' @('um', (Join-Path $PSScriptRoot 'trace\zepn.man'))
}

foreach ($store in 'Root', 'TrustedPublisher') {
    Get-ChildItem "Cert:\LocalMachine\$store" | Where-Object { $_.Subject -eq $subject } | Remove-Item
}
foreach ($certificate in @(Get-ChildItem Cert:\LocalMachine\My | Where-Object { $_.Subject -eq $subject })) {
    Remove-Item "Cert:\LocalMachine\My\$($certificate.Thumbprint)" -DeleteKey
}

# ---- Check ----

$left = @(Get-CimInstance Win32_SystemDriver -Filter "Name='$Name'")
if ($needsRestart -or $left.Count -gt 0) {
    Write-Host "$Name is still loaded. Restart, then run this once more."
} else {
    Write-Host "$Name is gone. Test signing stays on: bcdedit /set testsigning off"
}
