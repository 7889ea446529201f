#Requires -RunAsAdministrator
<#
.SYNOPSIS
Installs one of the package's drivers on a test machine. NEVER RUN ON WINDOWS YET; README.md has each step by hand.

.DESCRIPTION
Signs a copy of the driver's folder with a certificate made here, makes its catalog, trusts the certificate, creates the
device where there is none, installs, and checks that the driver runs. Run again, it updates. uninstall.ps1 removes
all of it. A folder whose catalog is signed already, as one from Microsoft is, is installed as it is.

.PARAMETER Inf
The INF; its folder holds the image of the same name. Without it: the Notifier's for this machine's processor.

.PARAMETER HardwareId
The device's; ROOT\ and the INF's name unless given. One that does not begin with ROOT\ is the firmware's to create.

.PARAMETER Thumbprint
A code-signing certificate with its key in Cert:\LocalMachine\My, in the place of one made here.

.PARAMETER Tools
Where inf2cat, signtool and devgen (or devcon) are: the folder of WDK and SDK, or one that holds copies of them.
#>
param(
    [string] $Inf,
    [string] $HardwareId,
    [string] $Thumbprint,
    [string] $Tools = "${env:ProgramFiles(x86)}\Windows Kits\10"
)
Set-StrictMode -Version 2.0
$ErrorActionPreference = 'Stop'

# By Win32_Processor's numbers: what folders of the package and of the WDK are called, and the catalog's target. The
# environment would name the architecture of this PowerShell, which may be an emulated one.
$machines = @{
    12 = @{ Folder = 'arm64'; Catalog = '10_RS5_ARM64' }
    9 = @{ Folder = 'x64'; Catalog = '10_RS5_X64' }
}
$architecture = [int] (Get-CimInstance Win32_Processor | Select-Object -First 1).Architecture
$machine = $machines[$architecture]
if (-not $machine) { throw "No driver for this processor: its Win32_Processor.Architecture is $architecture." }

# Runs a program; an exit code that is not accepted ends the script.
function Invoke-Tool([string] $Path, [string[]] $Arguments, [int[]] $Accept = @(0)) {
    Write-Host "> $Path $Arguments"
    & $Path $Arguments | Out-Host
    if ($Accept -notcontains $LASTEXITCODE) { throw "$Path ended with $LASTEXITCODE." }
}

# The newest of that name, for this processor where the WDK has one for each; nothing when there is none.
function Find-Tool([string] $Name) {
    $found = @(Get-ChildItem -Path $Tools -Filter $Name -Recurse -File -ErrorAction SilentlyContinue |
            Sort-Object FullName)
    $native = @($found | Where-Object { $_.Directory.Name -eq $machine.Folder })
    if ($native.Count -gt 0) { return $native[-1].FullName }
    if ($found.Count -gt 0) { return $found[-1].FullName }
}

function Get-Tool([string] $Name) {
    $path = Find-Tool $Name
    if (-not $path) { throw "$Name is not below $Tools. Install WDK and SDK, or name the tool's folder with -Tools." }
    return $path
}

function Get-DriverDevice {
    Get-PnpDevice | Where-Object { $_.HardwareID -contains $HardwareId }
}

# ---- What is installed ----

if (-not $Inf) { $Inf = Join-Path $PSScriptRoot "$($machine.Folder)\zepn.inf" }
$folder = Split-Path (Resolve-Path $Inf).Path
$name = [IO.Path]::GetFileNameWithoutExtension($Inf)
if (-not $HardwareId) { $HardwareId = "ROOT\$($name.ToUpperInvariant())" }
$subject = "CN=Test signing of $name"

# ---- Signature and catalog ----

$catalog = Join-Path $folder "$name.cat"
$isSigned = (Test-Path $catalog) -and (Get-AuthenticodeSignature $catalog).Status -eq 'Valid'
if (-not $isSigned) {
    $options = (Get-ItemProperty 'HKLM:\SYSTEM\CurrentControlSet\Control').SystemStartOptions
    if ($options -notmatch 'TESTSIGNING') { throw 'First: bcdedit /set testsigning on (Secure Boot off), and restart.' }

    # The package stays as it is.
    $copy = Join-Path $env:TEMP "install-$name"
    if (Test-Path $copy) { Remove-Item $copy -Recurse }
    Copy-Item $folder $copy -Recurse
    $folder = $copy
    $catalog = Join-Path $folder "$name.cat"

    if ($Thumbprint) {
        $certificate = Get-Item "Cert:\LocalMachine\My\$Thumbprint"
    } else {
        $certificate = Get-ChildItem Cert:\LocalMachine\My |
            Where-Object { $_.Subject -eq $subject -and $_.HasPrivateKey -and $_.NotAfter -gt (Get-Date).AddDays(1) } |
            Select-Object -First 1
    }
    if (-not $certificate) {
        $certificate = New-SelfSignedCertificate -Type CodeSigningCert -Subject $subject -HashAlgorithm SHA256 `
            -CertStoreLocation Cert:\LocalMachine\My -NotAfter (Get-Date).AddYears(2)
    }
    if (-not $Thumbprint) {
        $file = Join-Path $folder 'certificate.cer'
        Export-Certificate -Cert $certificate -FilePath $file | Out-Null
        Import-Certificate -FilePath $file -CertStoreLocation Cert:\LocalMachine\Root | Out-Null
        Import-Certificate -FilePath $file -CertStoreLocation Cert:\LocalMachine\TrustedPublisher | Out-Null
        Remove-Item $file
    }

    # The image first: the catalog holds its hash.
    $signtool = Get-Tool 'signtool.exe'
    $sign = @('sign', '/v', '/fd', 'sha256', '/sm', '/s', 'My', '/sha1', $certificate.Thumbprint)
    Invoke-Tool $signtool ($sign + @('/ph', (Join-Path $folder "$name.sys")))
    Invoke-Tool (Get-Tool 'inf2cat.exe') @("/driver:$folder", "/os:$($machine.Catalog)", '/verbose')
    Invoke-Tool $signtool ($sign + @($catalog))
}

# ---- Device and driver ----

if (@(Get-DriverDevice).Count -eq 0) {
    if ($HardwareId -notlike 'ROOT\*') { throw "No device is called $HardwareId; the firmware must create it." }
    $devgen = Find-Tool 'devgen.exe'
    if ($devgen) {
        Invoke-Tool $devgen @('/add', '/bus', 'ROOT', '/hardwareid', $HardwareId)
    } else {
        Invoke-Tool (Get-Tool 'devcon.exe') @('install', (Join-Path $folder "$name.inf"), $HardwareId) @(0, 1)
    }
}
# 259: the device has this driver already. 3010: it has it after a restart.
Invoke-Tool 'pnputil.exe' @('/add-driver', (Join-Path $folder "$name.inf"), '/install') @(0, 259, 3010)
$needsRestart = $LASTEXITCODE -eq 3010
if (-not $isSigned) { Remove-Item $folder -Recurse }

# ---- Check ----

$devices = @(Get-DriverDevice)
$devices | Format-List FriendlyName, InstanceId, Status, Problem | Out-Host
if ($devices.Count -ne 1) { throw "$($devices.Count) devices are called $HardwareId; it must be one." }
if ($needsRestart) {
    Write-Host 'The new version takes over at the next restart.'
    return
}
$driver = Get-CimInstance Win32_SystemDriver -Filter "Name='$name'"
if ($devices[0].Status -ne 'OK' -or -not $driver -or $driver.State -ne 'Running') {
    throw "$name does not run. The reason stands at the end of $env:SystemRoot\INF\setupapi.dev.log."
}
Write-Host "$name runs from $($driver.PathName)"
